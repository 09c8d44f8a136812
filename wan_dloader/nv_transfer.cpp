#include "wan_dloader/nv_transfer.h"

#include "app/applet_log.h"
#include "app/product.h"
#include "crashdump/efs2.h"
#include "crashdump/efs2_exchange.h"
#include "diag/exchange.h"
#include "diag/packet_fields.h"
#include "diag/serial_port.h"
#include "platform/os.h"
#include "wan_dloader/emergency_downloader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>

namespace {

namespace mode_request {
constexpr uint8_t code = 0x29;
constexpr size_t mode_at = 1, size = 3;
} // namespace mode_request

namespace spc_request {
constexpr uint8_t code = 0x41;
constexpr size_t digits_at = 1, size = 7;
static_assert(digits_at + TESSEL_SPC.size() == size);
} // namespace spc_request

constexpr size_t request_head = 3; // code and item number, by which a response is known

} // namespace

bool await_diag_port(const std::string& port)
{
    constexpr int32_t patience = 30; // seconds
    return WaitForDiagPort(port, patience) != 0;
}

bool lock_nv_data()
{
    // The folder itself is locked: files in it are replaced, and a lock file would be left there.
    static UniqueFd folder;
    if (!folder.valid())
        folder = UniqueFd(open("/data", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (flock(folder.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK)
        return true; // a tablet that cannot lock it can work all the same
    log_error("NV data are in use by another wan_dloader");
    return false;
}

bool open_diag_port(const std::string& port)
{
    if (!await_diag_port(port))
        return false;
    (void)OpenSerialPort(port.c_str());
    return true;
}

void request_modem_mode(ModemMode mode)
{
    std::array<uint8_t, mode_request::size> request{mode_request::code};
    put_le16(request, mode_request::mode_at, static_cast<uint16_t>(mode));
    (void)SendPktAndWait(request, mode_request::code);
}

void restart_modem(const std::string& port)
{
    if (!open_diag_port(port))
        return;
    request_modem_mode(ModemMode::reset);
    CloseSerialPort();
}

void send_service_programming_code()
{
    std::array<uint8_t, spc_request::size> request{spc_request::code};
    std::ranges::copy(TESSEL_SPC, request.begin() + spc_request::digits_at);
    (void)SendPktAndWait(request, spc_request::code);
}

std::span<const uint8_t> nv_response(std::span<const uint8_t> packet, const NvPacket& request)
{
    const auto head = std::span(request).first(request_head);
    const bool bad_spc = get_u8(packet, 0) == bad_spc_code;
    const auto response = bad_spc ? packet.subspan(1) : packet;
    if (response.size() < nv_packet::size)
        return {};
    if (bad_spc)
        log_warning("Bad SPC for NV item %d", get_le16(response, nv_packet::item_at));
    else if (!std::ranges::equal(response.first(request_head), head))
        return {};
    return response;
}

int32_t judge_nv_status(std::span<const uint8_t> response)
{
    const uint16_t status = get_le16(response, nv_packet::status_at);
    const int item = get_le16(response, nv_packet::item_at);
    if (status == nv_status::done)
        return 0;
    if (const char* text = nv_status_text(status))
        log_warning("NV item (%d): %s", item, text);
    else
        log_warning("NV item (%d): Unknown status - %d", item, status);
    return status == nv_status::queued ? 1 : 0;
}

bool has_no_nv_item_to_restore(std::span<const uint8_t> response)
{
    using namespace nv_status;
    const uint16_t status = get_le16(response, nv_packet::status_at);
    return status == not_active || status == bad_parameter || status == write_protected ||
           status == not_valid_for_target;
}

Fetch fetch_nvitemfile(const std::string& path, uint32_t size, uint16_t& sequence, std::vector<uint8_t>& data)
{
    data.clear();
    std::array<uint8_t, transfer_piece> buffer{};
    for (uint32_t remaining = size;;) {
        const uint16_t sent = sequence;
        auto piece = std::span(buffer).first(std::min(remaining, transfer_piece));
        (void)efs2_get_file(path, piece, sequence); // an empty piece is the failure
        const bool in_order = sequence == sent;
        ++sequence;
        if (piece.empty() || !in_order) {
            log_warning("Skip %s", printable(path).c_str());
            return in_order ? Fetch::withheld : Fetch::unanswered;
        }
        data.insert(data.end(), piece.begin(), piece.end());
        const auto received = static_cast<uint32_t>(piece.size()); // at most what remained
        remaining -= received;
        if (received >= remaining)
            return Fetch::got;
        remaining -= received;
    }
}

uint32_t stray_replies_since(uint32_t before)
{
    const bool answered = efs2_await_strays();
    if (!answered)
        log_error("No answer behind the last file: what came before may be another file's");
    const uint32_t strays = efs2_stray_replies() - before;
    if (strays != 0)
        log_error("%u EFS2 replies belong to no request: what came before may be another file's",
                  static_cast<unsigned>(strays));
    return strays + (answered ? 0 : 1);
}

uint32_t fetched_of_nvitemfile(uint32_t size)
{
    uint32_t fetched = 0;
    for (uint32_t remaining = size;;) {
        const uint32_t piece = std::min(remaining, transfer_piece);
        fetched += piece;
        remaining -= piece;
        if (piece >= remaining)
            return fetched;
        remaining -= piece;
    }
}
