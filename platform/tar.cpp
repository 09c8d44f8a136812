#include "platform/tar.h"

#include "app/applet_log.h"
#include "platform/os.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <sys/stat.h>

namespace {

// A header fills one block; a member's data begin in the next and are padded to whole blocks.
namespace header_block {
constexpr size_t size = 512;
constexpr size_t name_at = 0, name_size = 100; // without a terminator when it fills the field
constexpr size_t length_at = 124, length_size = 12;
constexpr size_t type_at = 156;
constexpr std::string_view extension_types = "xgXLK";
constexpr uint8_t sparse_type = 'S';
constexpr std::string_view sparse_extension = "GNU.sparse.";
constexpr size_t magic_at = 257;
constexpr std::string_view magic = "ustar";
} // namespace header_block

constexpr size_t copy_size = 4096;
constexpr size_t dump_size = 16;

struct TarMember {
    std::string name;
    int64_t offset; // of the first data byte in the archive
    int64_t size;   // bytes
};

UniqueFile s_tarfd;
std::array<uint8_t, header_block::size> s_tarbuf; // the header read last

// In the archive's order; the first empty slot ends the list.
std::array<std::optional<TarMember>, 20> s_filelist;
bool f_tarinit = false;

// The open member: its slot, the places of its first byte and of the one behind its last. All -1 when there is none.
int32_t f_rfile_opened = -1;
int64_t s_rfile_start_pos = -1;
int64_t s_rfile_end_pos = -1;

// Octal digits behind blanks, up to a zero, a blank or the field's end, as writers old and new pad them; no digit is 0.
// -1 when something else is in there.
int64_t oct2dec(std::span<const uint8_t> field)
{
    const auto is_blank = [](uint8_t c) { return c == ' '; };
    int64_t value = 0; // 12 digits are 36 bits
    for (auto digit = std::ranges::find_if_not(field, is_blank); digit != field.end(); ++digit) {
        if (*digit == '\0' || *digit == ' ')
            break;
        if (*digit < '0' || *digit > '7')
            return -1;
        value = value * 8 + (*digit - '0');
    }
    return value;
}

// A member's size. Where octal digits do not suffice writers put a mark and the number's bytes, the highest first.
int64_t size_of(std::span<const uint8_t> header)
{
    constexpr uint8_t binary_mark = 0x80;
    const auto field = header.subspan(header_block::length_at, header_block::length_size);
    if (field.front() != binary_mark)
        return oct2dec(field);
    int64_t value = 0;
    for (const uint8_t byte : field.subspan(1)) {
        if (value > std::numeric_limits<int64_t>::max() >> 8)
            return -1;
        value = value << 8 | byte;
    }
    return value;
}

std::string path_of(std::span<const uint8_t> header)
{
    const auto field = header.subspan(header_block::name_at, header_block::name_size);
    return {field.begin(), std::ranges::find(field, '\0')};
}

// Directories are dropped.
std::string name_of(std::span<const uint8_t> header)
{
    const std::string path = path_of(header);
    return path.substr(path.rfind('/') + 1); // npos + 1 is 0
}

// Whether a header with its data only says more about the member behind it. Newer writers give it that member's name,
// so that it would be flashed in its place.
bool is_extension(std::span<const uint8_t> header)
{
    return header_block::extension_types.find(static_cast<char>(header[header_block::type_at])) !=
           std::string_view::npos;
}

// Whether the data of the member are only those of a file that are not zero, or those that follow are. Flashed as they
// stand, they would come to wrong places. Newer writers say so in an extension's text, of which this looks at the first
// block, behind the header.
bool is_sparse(std::span<const uint8_t> header)
{
    if (header[header_block::type_at] == header_block::sparse_type)
        return true;
    std::array<uint8_t, header_block::size> text{};
    if (!is_extension(header) || fread(text.data(), 1, text.size(), s_tarfd.get()) == 0)
        return false;
    constexpr std::string_view mark = header_block::sparse_extension;
    return std::search(text.begin(), text.end(), mark.begin(), mark.end()) != text.end();
}

bool seek_to(int64_t position)
{
    clearerr(s_tarfd.get()); // a failed read of one member is none of the next
    return fseeko(s_tarfd.get(), position, SEEK_SET) == 0;
}

// Calls `visit` for each member whose size is not 0 in the archive's order, its header in s_tarbuf. 0 at the end of the
// list, -1 when the headers break off before it or one cannot be understood.
int32_t walk_headers(const std::function<void(int64_t data, int64_t size)>& visit)
{
    if (!s_tarfd || !seek_to(0))
        return -1;
    for (int64_t position = 0;;) {
        if (fread(s_tarbuf.data(), 1, s_tarbuf.size(), s_tarfd.get()) != s_tarbuf.size())
            return -1;
        const int64_t size = size_of(s_tarbuf);
        if (size < 0) {
            log_error("Invalid size of %s in tar file", printable(name_of(s_tarbuf)).c_str());
            return -1;
        }
        if (size == 0)
            return 0;
        constexpr int64_t block = header_block::size;
        const int64_t data = position + block;
        if (is_sparse(s_tarbuf)) {
            log_error("%s is a sparse file in tar file", printable(name_of(s_tarbuf)).c_str());
            return -1;
        }
        if (!is_extension(s_tarbuf))
            visit(data, size);
        if (size > std::numeric_limits<int64_t>::max() - data - block)
            return 0; // no place to seek to
        position = data + (size + block - 1) / block * block;
        if (!seek_to(position))
            return 0;
    }
}

const TarMember* member_at(int32_t slot)
{
    if (!f_tarinit || slot < 0 || static_cast<size_t>(slot) >= s_filelist.size())
        return nullptr;
    const auto& member = s_filelist[static_cast<size_t>(slot)];
    return member ? &*member : nullptr;
}

// Goes to a member's first byte. False, with an ERROR, when the archive does not hold all of it.
bool seek_to_data(const TarMember& member)
{
    struct stat archive {};
    if (fstat(fileno(s_tarfd.get()), &archive) == 0 && member.offset <= archive.st_size &&
        member.size <= archive.st_size - member.offset && seek_to(member.offset))
        return true;
    log_error("The file %s is cut short", printable(member.name).c_str());
    return false;
}

// Copies `size` bytes from the archive's position through `buffer`. False when one cannot be read or written.
bool copy_data(int64_t size, FILE* target, std::span<uint8_t> buffer)
{
    while (size > 0) {
        const auto chunk = buffer.first(static_cast<size_t>(std::min<int64_t>(size, std::ssize(buffer))));
        if (fread(chunk.data(), 1, chunk.size(), s_tarfd.get()) != chunk.size() ||
            fwrite(chunk.data(), 1, chunk.size(), target) != chunk.size())
            return false;
        size -= std::ssize(chunk);
    }
    return true;
}

// Takes away a file, or a link to one. A device stays.
void remove_file(const std::string& path)
{
    struct stat target {};
    if (lstat(path.c_str(), &target) == 0 && (S_ISREG(target.st_mode) || S_ISLNK(target.st_mode)))
        (void)remove(path.c_str());
}

// Whether the archive ended, or could not be read, within what it is to hold.
bool is_at_fault()
{
    return feof(s_tarfd.get()) != 0 || ferror(s_tarfd.get()) != 0;
}

// Bytes between the archive's position and the open member's end. 0 when there is no member, when the position has been
// moved out of it, and when the archive turned out to end before it.
int64_t bytes_left()
{
    if (!f_tarinit || f_rfile_opened < 0 || is_at_fault())
        return 0;
    const int64_t position = ftello(s_tarfd.get());
    return position < s_rfile_start_pos ? 0 : std::max<int64_t>(s_rfile_end_pos - position, 0);
}

void show_member(const std::string& name, int64_t size, int64_t offset)
{
    log_info("name: %s, size=%" PRId64 ", offset=%" PRId64, printable(name).c_str(), size, offset);
}

} // namespace

int32_t tar_init(const std::string& path)
{
    tar_deinit();
    s_tarfd = open_regular_file(path);
    if (!s_tarfd) {
        log_error("Failed to open tar file %s", printable(path).c_str());
        return -1;
    }
    if (tar_get_files() < 0) {
        log_error("Failed to get files in tar file");
        return -1;
    }
    f_tarinit = true;
    return 0;
}

void tar_deinit()
{
    if (!s_tarfd)
        return;
    (void)tar_fclose();
    s_tarfd.reset();
    s_filelist = {};
    f_tarinit = false;
}

int32_t tar_get_files()
{
    s_filelist = {};
    size_t count = 0;
    const int32_t result = walk_headers([&](int64_t data, int64_t size) {
        const std::string name = name_of(s_tarbuf);
        const auto has_name = [&](const auto& member) { return member && member->name == name; };
        if (std::ranges::any_of(s_filelist, has_name))
            log_warning("%s is in tar file more than once, the first one counts", printable(name).c_str());
        if (count < s_filelist.size())
            s_filelist[count++] = TarMember{name, data, size};
    });
    // The zeros behind the last member have no name.
    if (const std::string last = path_of(s_tarbuf); result == 0 && size_of(s_tarbuf) == 0 && !last.empty())
        log_warning("%s is empty: what is behind it in tar file is not listed", printable(last).c_str());
    return result;
}

int32_t tar_get_files_count()
{
    const auto count = std::ranges::count_if(s_filelist, &std::optional<TarMember>::has_value);
    return f_tarinit && count < std::ssize(s_filelist) ? static_cast<int32_t>(count) : -1;
}

int32_t tar_seek_file(const std::string& name)
{
    for (size_t slot = 0; f_tarinit && slot < s_filelist.size() && s_filelist[slot]; ++slot)
        if (s_filelist[slot]->name == name)
            return static_cast<int32_t>(slot);
    return -1;
}

const char* tar_get_file_name(int32_t slot)
{
    const TarMember* member = member_at(slot);
    return member != nullptr ? member->name.c_str() : nullptr;
}

int64_t tar_get_file_size(int32_t slot)
{
    const TarMember* member = member_at(slot);
    return member != nullptr ? member->size : -1;
}

int64_t tar_get_file_offset(int32_t slot)
{
    const TarMember* member = member_at(slot);
    return member != nullptr ? member->offset : -1;
}

int32_t tar_fextract_to(const std::string& name, const std::string& target)
{
    if (!f_tarinit) {
        log_error("tar_init was not called");
        return -1;
    }
    if (name.empty()) {
        log_error("The file name to be extracted is NULL");
        return -1;
    }
    if (target.empty()) {
        log_error("The target file name is NULL");
        return -1;
    }
    const TarMember* member = member_at(tar_seek_file(name));
    if (member == nullptr) {
        log_error("Failed to find the file %s", name.c_str());
        return -1;
    }
    log_info("Extract file: %s to %s", name.c_str(), target.c_str());
    if (!seek_to_data(*member))
        return -1;
    remove_file(target); // it may be another name of one that is needed
    UniqueFile file = make_file(target);
    if (!file) {
        log_error("Failed to open file %s", target.c_str());
        return -1;
    }

    const std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[copy_size]);
    if (buffer == nullptr)
        log_info("Use default buffer...");
    const bool copied =
        copy_data(member->size, file.get(), buffer ? std::span(buffer.get(), copy_size) : std::span<uint8_t>(s_tarbuf));
    // What was written may only fail when the stream is closed.
    if (fclose(file.release()) != 0 || !copied) {
        log_error("Failed to copy the file %s to %s", name.c_str(), target.c_str());
        remove_file(target);
        return -1;
    }
    return 0;
}

int32_t tar_fopen(const std::string& name)
{
    const int32_t slot = name.empty() ? -1 : tar_seek_file(name);
    const TarMember* member = member_at(slot);
    if (member == nullptr || !seek_to_data(*member))
        return -1;
    f_rfile_opened = slot;
    s_rfile_start_pos = member->offset;
    s_rfile_end_pos = member->offset + member->size;
    return slot;
}

int32_t tar_fclose()
{
    f_rfile_opened = -1;
    s_rfile_start_pos = -1;
    s_rfile_end_pos = -1;
    return 0;
}

int64_t tar_fread(std::span<uint8_t> buffer)
{
    if (!f_tarinit || f_rfile_opened < 0)
        return -1;
    const auto count = static_cast<size_t>(std::min<int64_t>(std::ssize(buffer), bytes_left()));
    if (fread(buffer.data(), 1, count, s_tarfd.get()) != count) {
        log_error("Failed to read the tar file");
        return -1;
    }
    return static_cast<int64_t>(count);
}

char* tar_fgets(std::span<char> buffer)
{
    const int64_t longest = std::min<int64_t>({std::ssize(buffer) - 1, bytes_left(), INT_MAX - 1});
    if (longest < 1)
        return nullptr;
    // The member does not end here, so the archive must not either.
    if (fgets(buffer.data(), static_cast<int>(longest + 1), s_tarfd.get()) == nullptr || is_at_fault()) {
        log_error("Failed to read the tar file");
        return nullptr;
    }
    return buffer.data();
}

int32_t tar_feof()
{
    return bytes_left() == 0 ? 1 : 0;
}

void tar_show_files()
{
    for (int32_t slot = 0; const TarMember* member = member_at(slot); ++slot)
        show_member(member->name, member->size, member->offset);
}

void tar_show_files2()
{
    (void)walk_headers([](int64_t data, int64_t size) { show_member(name_of(s_tarbuf), size, data); });
}

void tar_fdump_16bytes()
{
    for (int32_t slot = 0; const TarMember* member = member_at(slot); ++slot) {
        printf("%s:\n", printable(member->name).c_str());
        std::array<uint8_t, dump_size> bytes{};
        const auto count = static_cast<size_t>(std::min<int64_t>(member->size, dump_size));
        const size_t got = seek_to(member->offset) ? fread(bytes.data(), 1, count, s_tarfd.get()) : 0;
        for (const uint8_t byte : std::span(bytes).first(got))
            printf("%02x ", byte);
        printf("\n");
    }
}

int32_t tar_seek_file2()
{
    return walk_headers([](int64_t, int64_t) {});
}

bool is_ustar(std::span<const uint8_t> header)
{
    using namespace header_block;
    return header.size() >= magic_at + magic.size() &&
           std::memcmp(header.data() + magic_at, magic.data(), magic.size()) == 0;
}
