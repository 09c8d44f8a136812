// The command service of the modem's own software, behind DIAG requests 4B 00 51 00: kernel log, command lines, files
// to and from modem/files/, version of the applications.
#pragma once

#include "journal.h"
#include "protocol.h"

#include <optional>

namespace sim {

class ModemService {
public:
    ModemService(fs::path home, std::string apps_version, const Journal& journal)
        : home_(std::move(home)), apps_version_(std::move(apps_version)), journal_(journal)
    {
    }

    [[nodiscard]] static bool is_request(View request);
    [[nodiscard]] Reply answer(View request);
    // The answer with the flag "no" and an error code.
    [[nodiscard]] static Bytes refusal(View request, uint8_t code);

private:
    // A file on its way to the host, chunk by chunk.
    struct Outgoing {
        std::string text;
        size_t at = 0;
    };

    [[nodiscard]] Reply kernel_log(View request);
    [[nodiscard]] Reply run(View request) const;
    [[nodiscard]] Reply pull(View request);
    [[nodiscard]] Reply push(View request);
    [[nodiscard]] Reply refuse(View request, uint8_t code, const std::string& complaint) const;
    [[nodiscard]] std::optional<fs::path> path_in(View request) const;
    [[nodiscard]] static Reply data(View request, std::string_view text);
    [[nodiscard]] static Reply next_chunk(View request, Outgoing& file);

    fs::path home_;
    std::string apps_version_;
    const Journal& journal_;
    std::optional<Outgoing> log_;
    std::optional<Outgoing> pulled_;
    Fd pushed_;
};

} // namespace sim
