// One packet protocol of the modem: a request in, a reply and what it does to the modem out.
#pragma once

#include "framing.h"

namespace sim {

// What the modem does once its reply is out.
enum class Then { stay, go_offline, crash, reboot, enter_fastboot };

struct Reply {
    Bytes packet; // empty: the request is not answered
    Then then = Then::stay;
    bool framed = true;
    size_t length_at = 0;   // where the packet announces the length of its data
    size_t length_size = 0; // 0: it announces none
};

class Protocol {
public:
    Protocol() = default;
    Protocol(const Protocol&) = delete;
    Protocol& operator=(const Protocol&) = delete;
    virtual ~Protocol() = default;

    // `request` is never empty.
    [[nodiscard]] virtual Reply answer(View request) = 0;
    [[nodiscard]] virtual Reply answer_to_damaged_frame(FrameState state) = 0;
    // How this protocol says no to `request` with an error code of the given number.
    [[nodiscard]] virtual Bytes refusal(View request, uint8_t code) const = 0;
};

} // namespace sim
