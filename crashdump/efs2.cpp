#include "crashdump/efs2.h"

#include "app/applet_log.h"
#include "crashdump/efs2_exchange.h"
#include "crashdump/efs2_packets.h"
#include "diag/exchange.h"
#include "diag/packet_fields.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <utility>

namespace {

struct ErrorText {
    uint32_t number;
    const char* text;
};

constexpr ErrorText error_texts[] = {
    {0, "Operation success"},
    {1, "Operation not permitted"},
    {2, "No such file or directory"},
    {6, "File exists"},
    {9, "Bad file descriptor"},
    {12, "Out of memory."},
    {13, "Permission denied."},
    {16, "Device or resource is busy"},
    {18, "Attempt to cross device."},
    {19, "No such device."},
    {20, "Not a directory"},
    {21, "Is a directory"},
    {22, "Invalid argument"},
    {24, "Too many open files"},
    {26, "File or directory already open"},
    {28, "No space left on device"},
    {29, "Seek is not permitted"},
    {34, "Parameter out of range."},
    {36, "File name too long"},
    {39, "Directory not empty"},
    {40, "Too many symbolic links encountered"},
    {116, "Stale remote file handle."},
    {122, "Attempt to write beyond quota"},
    {301, "No Media present"},
    {302, "Bad Formated Media"},
    {303, "Not an EFS2 item file."},
    {304, "Rollback failed while backing orig file"},
    {0x8000, "End of file. Internal error code"},
    {0x8001, "Untranslated SFAT error code."},
    {0x8002, "Untranslated HFAT error code."},
    {0x40000001, "EFS2 diag - inconsistent state"},
    {0x40000002, "EFS2 diag - invalid seq no"},
    {0x40000003, "EFS2 diag - directory not open"},
    {0x40000004, "EFS2 diag - directory entry not found"},
    {0x40000005, "EFS2 diag - invalid path"},
    {0x40000006, "EFS2 diag - path too long"},
    {0x40000007, "EFS2 diag - too many open directories"},
    {0x40000008, "EFS2 diag - invalid directory entry"},
    {0x40000009, "EFS2 diag - too many open files"},
    {0x4000000A, "EFS2 diag - unknown file type"},
    {0x4000000B, "EFS2 diag - not nand flash"},
    {0x4000000C, "EFS2 diag - unavailable info"},
};
static_assert(std::size(error_texts) == 42);
static_assert(std::ranges::is_sorted(error_texts, std::ranges::less_equal{}, &ErrorText::number),
              "looked up by halves");

// Indexed by the type of a directory entry.
constexpr const char* s_entry_type_str[] = {"Regular file", "Directory", "Symbolic link", "Immovable file"};

int32_t s_efs2_verbose = 0;

// The request as it is built, and then the reply in its place.
std::array<uint8_t, efs2_packet::buffer_size> s_efs2_rsp;
size_t s_efs2_rsp_len = 0; // bytes of the reply; 0 when none came
uint32_t s_efs2_error = 0; // number in it, of an operation that was refused

std::array<uint8_t, query_packet::reply_size> s_efs2_query_rsp;

std::span<const uint8_t> reply()
{
    return std::span(s_efs2_rsp).first(s_efs2_rsp_len);
}

// Begins a request: its header, and zeros behind it.
void begin_request(uint16_t command)
{
    s_efs2_rsp_len = 0;
    s_efs2_error = 0;
    s_efs2_rsp.fill(0);
    put_u8(s_efs2_rsp, 0, efs2_packet::code);
    put_u8(s_efs2_rsp, efs2_packet::subsystem_at, efs2_packet::subsystem);
    put_le16(s_efs2_rsp, efs2_packet::command_at, command);
}

// Puts `path` and its zero at `offset`. Returns the request's length, or 0 after an ERROR when the buffer is too short.
[[nodiscard]] size_t put_path(size_t offset, std::string_view path)
{
    const size_t length = offset + path.size() + 1;
    if (length > s_efs2_rsp.size()) {
        log_error("EFS2 request is too long: %d bytes, with a path of %d characters", static_cast<int>(length),
                  static_cast<int>(path.size()));
        return 0;
    }
    std::ranges::copy(path, s_efs2_rsp.begin() + static_cast<ptrdiff_t>(offset));
    put_u8(s_efs2_rsp, length - 1, 0);
    return length;
}

// Sends the first `length` bytes of the buffer. Returns the exchange's result. The reply is copied here and not by the
// filter, which would write into a request that is still being sent, or into the next one after a time-out.
[[nodiscard]] int32_t exchange(size_t length)
{
    const int32_t result = efs2_exchange(std::span(s_efs2_rsp).first(length));
    if (result != exchange_accepted)
        return result;
    s_efs2_rsp_len = std::min<size_t>(sResponseLen, s_efs2_rsp.size());
    std::copy_n(sResponseBuf, s_efs2_rsp_len, s_efs2_rsp.begin());
    return result;
}

// Whether the modem refused, or does not say; shows why.
[[nodiscard]] bool refused(size_t error_at)
{
    if (reply().size() < error_at + sizeof s_efs2_error) {
        log_error("EFS2 response is cut: %d bytes", static_cast<int>(reply().size()));
        return true;
    }
    s_efs2_error = get_le32(reply(), error_at);
    if (s_efs2_error != 0)
        display_err_msg(s_efs2_error);
    return s_efs2_error != 0;
}

// Sends the first `length` bytes of the buffer and judges the reply. Returns 0, -1 or the negated failure of the
// exchange.
[[nodiscard]] int32_t ask(size_t length, size_t error_at)
{
    const int32_t result = exchange(length);
    if (result != exchange_accepted)
        return -result;
    return refused(error_at) ? -1 : 0;
}

// The data of the reply: as many bytes as it announces, but no more than it carries and there is room for.
[[nodiscard]] std::span<const uint8_t> data_of_reply(size_t data_at, uint32_t announced, size_t room)
{
    const auto carried = reply().subspan(std::min(data_at, s_efs2_rsp_len));
    const size_t taken = std::min({size_t{announced}, carried.size(), room});
    if (taken < announced)
        log_warning("Response announces %u bytes, %d taken", announced, static_cast<int>(taken));
    return carried.first(taken);
}

// Item-file transfers are numbered; a modem that counts otherwise is followed. Whether the numbers are the same.
bool adopt_sequence(uint16_t& sequence, uint16_t received)
{
    if (received == sequence)
        return true;
    log_warning("Seq number is not matched: in - %d, out - %d", sequence, received);
    sequence = received;
    return false;
}

// Replies to reads and writes say what they are about.
void check_place(size_t descriptor_at, int32_t descriptor, size_t offset_at, uint32_t offset)
{
    const auto of = static_cast<int32_t>(get_le32(reply(), descriptor_at));
    const uint32_t at = get_le32(reply(), offset_at);
    if (of == descriptor && at == offset)
        return;
    log_warning("Response is for offset %u of file %d, not for %u of %d", at, of, offset, descriptor);
    efs2_count_stray();
}

[[nodiscard]] int32_t close_descriptor(uint16_t command, int32_t descriptor)
{
    begin_request(command);
    put_le32(s_efs2_rsp, close_packet::descriptor_at, static_cast<uint32_t>(descriptor));
    return ask(close_packet::request_size, close_packet::error_at);
}

[[nodiscard]] bool efs2_send_hello()
{
    using namespace hello_packet;
    begin_request(command);
    if (exchange(request_size) != exchange_accepted)
        return false;
    if (s_efs2_verbose == 0)
        return true;

    log_info("EFS2 Hello packet: ");
    log_info("\ttarg_pkt_window : 0x%08x", get_le32(reply(), targ_pkt_window_at));
    log_info("\ttarg_byte_window: 0x%08x", get_le32(reply(), targ_byte_window_at));
    log_info("\thost_pkt_window : 0x%08x", get_le32(reply(), host_pkt_window_at));
    log_info("\thost_byte_window: 0x%08x", get_le32(reply(), host_byte_window_at));
    log_info("\titer_pkt_window : 0x%08x", get_le32(reply(), iter_pkt_window_at));
    log_info("\titer_byte_window: 0x%08x", get_le32(reply(), iter_byte_window_at));
    log_info("\tversion         : 0x%08x", get_le32(reply(), version_at));
    log_info("\tmin_version     : 0x%08x", get_le32(reply(), min_version_at));
    log_info("\tmax_version     : 0x%08x", get_le32(reply(), max_version_at));
    log_info("\tfeature_bits    : 0x%08x", get_le32(reply(), feature_bits_at));
    return true;
}

int32_t query_limit(size_t offset)
{
    return static_cast<int32_t>(get_le32(s_efs2_query_rsp, offset));
}

[[nodiscard]] bool efs2_send_query()
{
    using namespace query_packet;
    begin_request(command);
    if (exchange(request_size) != exchange_accepted)
        return false;
    s_efs2_query_rsp.fill(0);
    std::ranges::copy(reply().first(std::min(s_efs2_rsp_len, reply_size)), s_efs2_query_rsp.begin());
    if (s_efs2_verbose == 0)
        return true;

    log_info("EFS2 Query packet: ");
    log_info("\tmax_name       : %d", query_limit(max_name_at));
    log_info("\tmax_path       : %d", query_limit(max_path_at));
    log_info("\tmax_link_depth : %d", query_limit(max_link_depth_at));
    log_info("\tmax_file_size  : %d", query_limit(max_file_size_at));
    log_info("\tmax_dir_entries: %d", query_limit(max_dir_entries_at));
    log_info("\tmax_mounts     : %d", query_limit(max_mounts_at));
    return true;
}

} // namespace

int32_t s_efs2_initialzed = 0;

void efs2_set_verbose(int32_t on)
{
    s_efs2_verbose = on;
}

int32_t efs2_init()
{
    efs2_forget_firmware();
    if (!efs2_send_hello() || !efs2_send_query())
        return 0;
    s_efs2_initialzed = 1;
    return 1;
}

int32_t efs2_open_file(std::string_view path, uint32_t flags, uint32_t mode)
{
    using namespace open_packet;
    begin_request(command);
    put_le32(s_efs2_rsp, flags_at, flags);
    put_le32(s_efs2_rsp, mode_at, mode);
    const size_t length = put_path(path_at, path);
    if (length == 0)
        return -1;

    const int32_t result = exchange(length);
    if (result != exchange_accepted) {
        log_warning("EFS2 OPEN DIAG command failure: %d\n", result);
        return -result;
    }
    return refused(error_at) ? -1 : static_cast<int32_t>(get_le32(reply(), descriptor_at));
}

int32_t efs2_close_file(int32_t descriptor)
{
    return close_descriptor(close_packet::file_command, descriptor);
}

int32_t efs2_read_file(int32_t descriptor, std::span<uint8_t> destination, uint32_t offset)
{
    using namespace read_packet;
    size_t total = 0;
    for (;;) {
        const size_t asked = std::min(destination.size() - total, piece_size);
        begin_request(command);
        put_le32(s_efs2_rsp, descriptor_at, static_cast<uint32_t>(descriptor));
        const uint32_t position = offset + static_cast<uint32_t>(total);
        put_le32(s_efs2_rsp, count_at, static_cast<uint32_t>(asked));
        put_le32(s_efs2_rsp, offset_at, position);
        const int32_t result = ask(request_size, error_at);
        if (result != 0)
            return result;
        check_place(descriptor_at, descriptor, reply_offset_at, position);

        const auto data = data_of_reply(data_at, get_le32(reply(), read_at), asked);
        std::ranges::copy(data, destination.subspan(total).begin());
        total += data.size();
        if (data.size() < asked || total == destination.size())
            return static_cast<int32_t>(total);
    }
}

int32_t efs2_write_file(int32_t descriptor, std::span<const uint8_t> data, uint32_t offset)
{
    using namespace write_packet;
    size_t total = 0;
    for (;;) {
        const auto piece = data.subspan(total, std::min(data.size() - total, piece_size));
        begin_request(command);
        put_le32(s_efs2_rsp, descriptor_at, static_cast<uint32_t>(descriptor));
        const uint32_t position = offset + static_cast<uint32_t>(total);
        put_le32(s_efs2_rsp, offset_at, position);
        std::ranges::copy(piece, s_efs2_rsp.begin() + data_at);
        const int32_t result = ask(data_at + piece.size(), error_at);
        if (result != 0)
            return result;
        check_place(descriptor_at, descriptor, reply_offset_at, position);

        const size_t written = std::min<size_t>(get_le32(reply(), written_at), piece.size());
        total += written;
        if (total == data.size())
            return static_cast<int32_t>(total);
        if (written == 0) {
            log_error("Modem takes none of %d bytes to write", static_cast<int>(piece.size()));
            return -1;
        }
    }
}

int32_t efs2_stat(std::string_view path, Efs2Stat* status)
{
    using namespace stat_packet;
    begin_request(command);
    const size_t length = put_path(path_at, path);
    if (length == 0)
        return -1;
    const int32_t result = ask(length, error_at);
    if (result != 0)
        return result;

    if (status != nullptr) {
        // Not 0 for want of it: the file would be saved as an empty one.
        if (reply().size() < size_at + sizeof status->size) {
            log_error("EFS2 STAT response is cut: %d bytes", static_cast<int>(reply().size()));
            return -1;
        }
        *status = {
            .mode = get_le32(reply(), mode_at),
            .size = get_le32(reply(), size_at),
            .link_count = get_le32(reply(), link_count_at),
            .atime = get_le32(reply(), atime_at),
            .mtime = get_le32(reply(), mtime_at),
        };
    }
    return 0;
}

bool efs2_not_found()
{
    constexpr uint32_t no_such_file = 2, not_a_directory = 20, no_such_entry = 0x40000004;
    return s_efs2_error == no_such_file || s_efs2_error == not_a_directory || s_efs2_error == no_such_entry;
}

int32_t efs2_remove(std::string_view path)
{
    using namespace remove_packet;
    begin_request(command);
    const size_t length = put_path(path_at, path);
    return length == 0 ? -1 : ask(length, error_at);
}

int32_t efs2_open_dir(std::string_view path)
{
    using namespace open_dir_packet;
    begin_request(command);
    const size_t length = put_path(path_at, path);
    if (length == 0)
        return -1;
    const int32_t result = ask(length, error_at);
    return result != 0 ? result : static_cast<int32_t>(get_le32(reply(), handle_at));
}

int32_t efs2_read_dir(int32_t handle, Efs2DirEntry& entry, uint32_t& sequence)
{
    using namespace read_dir_packet;
    begin_request(command);
    put_le32(s_efs2_rsp, handle_at, static_cast<uint32_t>(handle));
    put_le32(s_efs2_rsp, sequence_at, sequence);
    const int32_t result = ask(request_size, error_at);
    if (result != 0)
        return result;

    const auto name = reply().subspan(std::min(name_at, s_efs2_rsp_len));
    entry = {
        .type = get_le32(reply(), type_at),
        .mode = get_le32(reply(), mode_at),
        .size = get_le32(reply(), size_at),
        .atime = get_le32(reply(), atime_at),
        .mtime = get_le32(reply(), mtime_at),
        .ctime = get_le32(reply(), ctime_at),
        .name = {name.begin(), std::ranges::find(name, uint8_t{0})},
    };
    sequence = get_le32(reply(), sequence_at);
    return 0;
}

int32_t efs2_close_dir(int32_t handle)
{
    return close_descriptor(close_packet::directory_command, handle);
}

int32_t efs2_get_file(std::string_view path, std::span<uint8_t>& data, uint16_t& sequence)
{
    using namespace get_packet;
    const auto room = std::exchange(data, {});
    begin_request(command);
    put_le32(s_efs2_rsp, room_at, static_cast<uint32_t>(room.size()));
    put_le16(s_efs2_rsp, sequence_at, sequence);
    const size_t length = put_path(path_at, path);
    if (length == 0)
        return -1;

    const int32_t result = exchange(length);
    if (result != exchange_accepted)
        return result;
    if (refused(error_at))
        return -1;

    (void)adopt_sequence(sequence, get_le16(reply(), sequence_at));
    const auto received = data_of_reply(data_at, get_le32(reply(), length_at), room.size());
    std::ranges::copy(received, room.begin());
    data = room.first(received.size());
    return static_cast<int32_t>(data.size());
}

int32_t efs2_put_file(std::string_view path, std::span<const uint8_t> data, uint32_t flags, uint16_t& sequence)
{
    using namespace put_packet;
    begin_request(command);
    put_le32(s_efs2_rsp, length_at, static_cast<uint32_t>(data.size()));
    put_le32(s_efs2_rsp, flags_at, flags);
    put_le16(s_efs2_rsp, sequence_at, sequence);
    const size_t length = put_path(data_at + data.size(), path);
    if (length == 0)
        return -1;
    std::ranges::copy(data, s_efs2_rsp.begin() + data_at);

    const int32_t result = ask(length, error_at);
    if (result == 0 && !adopt_sequence(sequence, get_le16(reply(), reply_sequence_at)) && efs2_repeats_numbers())
        efs2_count_stray(); // it tells how the file before was taken
    return result;
}

const char* efs2_get_dir_entry_type(const Efs2DirEntry& entry)
{
    if (entry.type < std::size(s_entry_type_str))
        return s_entry_type_str[entry.type];
    return (entry.mode & efs2_mode::type_bits) == efs2_mode::item_file ? "Item file" : "Unknown file type";
}

void display_err_msg(uint32_t number)
{
    const auto* row = std::ranges::lower_bound(error_texts, number, {}, &ErrorText::number);
    const bool known = row != std::end(error_texts) && row->number == number;
    log_error("%s", known ? row->text : "Unknown error code");
}
