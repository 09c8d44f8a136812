// The modem at the other end of the port, in place of the packet engine: it answers while a request is being sent. Time
// passes at once where it does not answer.
#pragma once

#include "diag/pktio.h"
#include "tests/fuzz/harness.h"

#include <functional>
#include <optional>

// The next packet that the modem has to say to `request`; none when it falls silent. Asked until the product has taken
// one for the answer.
using Modem = std::function<std::optional<Bytes>(std::span<const uint8_t> request)>;

// Puts `modem` at the port, which is open for `handler`; the exchange of that side is as at the start of a process.
void connect(PacketHandler handler, Modem modem);

// A modem that says the pieces of `input` one after the other, until there are no more.
[[nodiscard]] Modem modem_of(Input& input);

// From now on this is no item file, although it lies among them.
void add_regular_file(std::string path);

// What a modem that does everything as it should says to `request`. It has every NV item and every file.
[[nodiscard]] Bytes proper_answer(std::span<const uint8_t> request);

// Such a modem, but where `input` says otherwise: a byte a request, and where that is odd a piece in place of the
// answer, or silence where that is empty.
[[nodiscard]] Modem faulty_modem(Input& input);
