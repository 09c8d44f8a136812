// DLOAD, what a crashed modem speaks on its only port: who are you, which memory is there, give me a piece of it.
#pragma once

#include "journal.h"
#include "memory.h"
#include "protocol.h"

namespace sim {

class DloadPort : public Protocol {
public:
    // `table_reply`: sent as it stands for the region table, instead of the true one.
    DloadPort(const Memory& memory, uint8_t version, std::optional<Bytes> table_reply, const Journal& journal)
        : memory_(memory), version_(version), table_reply_(std::move(table_reply)), journal_(journal)
    {
    }

    [[nodiscard]] Reply answer(View request) override;
    [[nodiscard]] Reply answer_to_damaged_frame(FrameState state) override;
    [[nodiscard]] Bytes refusal(View request, uint8_t code) const override;

private:
    [[nodiscard]] Reply region_table() const;
    [[nodiscard]] Reply read_framed(View request) const;
    [[nodiscard]] Reply read_unframed(View request) const;
    [[nodiscard]] Reply nak(uint8_t reason, const std::string& complaint) const;

    const Memory& memory_;
    uint8_t version_;
    std::optional<Bytes> table_reply_;
    const Journal& journal_;
};

// 03, reason (2).
[[nodiscard]] Bytes nak_packet(uint8_t reason);

} // namespace sim
