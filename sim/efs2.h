// EFS2 over DIAG: how a host reaches the modem's files.
#pragma once

#include "efs2_store.h"
#include "protocol.h"

namespace sim {

// What every request and every answer begins with; then the number of the operation (2, little-endian).
constexpr uint8_t efs2_header[] = {0x4B, 0x13};

[[nodiscard]] std::unique_ptr<Protocol> make_efs2(EfsStore store, const Journal& journal);

} // namespace sim
