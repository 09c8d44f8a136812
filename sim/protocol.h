// One packet protocol of the modem: a request in, a reply and what it does to the modem out.
#pragma once

#include "flash_store.h"
#include "framing.h"
#include "memory.h"
#include "nv_store.h"

#include <memory>

namespace sim {

// What the modem does once its reply is out.
enum class Then { stay, go_offline, crash, reboot, enter_fastboot, start_programmer };

struct Reply {
    Bytes packet; // empty: the request is not answered
    Then then = Then::stay;
    bool framed = true;
    size_t length_at = 0;   // where the packet announces the length of its data
    size_t length_size = 0; // 0: it announces none
    size_t sequence_at = 0; // where it carries a sequence number (2, little-endian); 0: it carries none
};

class Protocol {
public:
    Protocol() = default;
    Protocol(const Protocol&) = delete;
    Protocol(Protocol&&) = delete;
    Protocol& operator=(const Protocol&) = delete;
    Protocol& operator=(Protocol&&) = delete;
    virtual ~Protocol() = default;

    // `request` is never empty.
    [[nodiscard]] virtual Reply answer(View request) = 0;
    [[nodiscard]] virtual Reply answer_to_damaged_frame(FrameState) { return {}; }
    // How this protocol says no to `request` with an error code of the given number.
    [[nodiscard]] virtual Bytes refusal(View request, uint32_t code) const = 0;
    // What stands for an error of this number, whatever the request.
    [[nodiscard]] virtual Bytes error_answer(View request, uint32_t code) const
    {
        return with_code(byte_of(code, 0), request);
    }
    // One of so many that the journal has no line for each.
    [[nodiscard]] virtual bool is_block(View /*request*/) const { return false; }
    // A request that is refused on demand is not obeyed either.
    [[nodiscard]] virtual bool heeds_refusals() const { return false; }
};

// DIAG, what a running modem speaks on its first port: NV items, changes of mode, test commands. Requests of the
// command service (they begin with `service_header`) go to `service`, those of the file system (`efs2_header`) to
// `files`. `spc`, six digits, opens the protected NV items to writes. Old firmware does not know how to go to
// fastboot.
[[nodiscard]] std::unique_ptr<Protocol> make_diag(const NvStore& nv, std::unique_ptr<Protocol> service,
                                                  std::unique_ptr<Protocol> files, uint32_t sku, std::string spc,
                                                  bool knows_fastboot, const Journal& journal);

// A DIAG error answer is one of these codes and then the request.
constexpr uint8_t unknown_command = 0x13, bad_parameter = 0x14, bad_length = 0x15;

// The command service of the modem's own software: kernel log, command lines, files to and from `home`/files, version
// of the applications.
constexpr uint8_t service_header[] = {0x4B, 0x00, 0x51, 0x00};
[[nodiscard]] std::unique_ptr<Protocol> make_service(fs::path home, std::string apps_version, const Journal& journal);

// DLOAD, what a crashed modem speaks on its only port: who are you, which memory is there, give me a piece of it; and
// take this program into your memory and start it.
struct DloadSettings {
    uint8_t version;
    std::optional<Bytes> table_reply; // sent as it stands for the region table, instead of the true one
    bool wide_addresses;              // of writes: 32 bits, else 24
    bool boot_rom;  // all that a modem without boot code has: no memory to read, emergency programs only
    fs::path image; // where the program that was started is kept
};
[[nodiscard]] std::unique_ptr<Protocol> make_dload(const Memory& memory, DloadSettings settings,
                                                   const Journal& journal);

// The flash programmer that was started by DLOAD.
[[nodiscard]] std::unique_ptr<Protocol> make_flash_programmer(const FlashStore& flash, const Journal& journal);

// DLOAD's refusal: 03, reason (2).
[[nodiscard]] inline Bytes nak_packet(uint8_t reason)
{
    return {0x03, 0x00, reason};
}

} // namespace sim
