// DIAG, what a running modem speaks on its first port: NV items, mode changes, test commands, the modem service.
#pragma once

#include "modem_service.h"
#include "nv_store.h"

namespace sim {

class DiagPort : public Protocol {
public:
    DiagPort(const NvStore& nv, ModemService service, uint32_t sku, const Journal& journal)
        : nv_(nv), service_(std::move(service)), sku_(sku), journal_(journal)
    {
    }

    [[nodiscard]] Reply answer(View request) override;
    [[nodiscard]] Reply answer_to_damaged_frame(FrameState state) override;
    [[nodiscard]] Bytes refusal(View request, uint8_t code) const override;

private:
    [[nodiscard]] Reply nv_item(View request) const;
    [[nodiscard]] Reply version(View request) const;
    [[nodiscard]] Reply sku(View request) const;
    [[nodiscard]] Reply error(View request, uint8_t code, const std::string& complaint) const;

    const NvStore& nv_;
    ModemService service_;
    uint32_t sku_;
    const Journal& journal_;
};

} // namespace sim
