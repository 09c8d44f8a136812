#include "efs2_store.h"

#include <deque>
#include <fcntl.h>
#include <sys/stat.h>

namespace sim {

namespace {

constexpr const char* types_name = ".types";

constexpr std::pair<std::string_view, EfsType> type_words[] = {
    {"item ", EfsType::item},
    {"regular ", EfsType::regular},
};

struct StandardFile {
    const char* path;
    EfsType type;
    size_t size;
};

constexpr StandardFile standard_files[] = {
    {"/nv/item_files/rfnv/00020085", EfsType::item, 32},
    {"/nv/item_files/rfnv/00020086", EfsType::item, 64},
    {"/nv/item_files/rfnv/00020095", EfsType::item, 1},
    {"/nv/item_files/rfnv/00020090", EfsType::regular, 128},
    {"/nv/item_files/rfnv/00022960", EfsType::regular, 524},
    {"/nv/item_files/modem/mmode/lte_bandpref", EfsType::item, 8},
    {"/nv/item_files/modem/mmode/ue_usage_setting", EfsType::item, 1},
    {"/nv/item_files/modem/qmi/cat/qmi_cat_mode", EfsType::item, 1},
    {"/sd/rat_acq_order", EfsType::item, 7},
    {"/etc/calibration.log", EfsType::regular, 5000},
};
constexpr const char *standard_link = "calibration.log", *standard_target = "etc/calibration.log";

// Bytes that differ from one file to the next and are the same on every tablet.
Bytes contents_of(const StandardFile& file)
{
    constexpr uint8_t step = 7;
    uint8_t next = 0;
    for (const char letter : std::string_view(file.path))
        next = byte_of(next + static_cast<uint64_t>(letter), 0);
    Bytes bytes(file.size);
    for (uint8_t& byte : bytes) {
        byte = next;
        next = byte_of(next + uint64_t{step}, 0);
    }
    return bytes;
}

[[noreturn]] void fail(EfsError number)
{
    throw EfsFailure{number};
}

std::deque<std::string> names_of(std::string_view path)
{
    std::deque<std::string> names;
    for (const std::string_view name : split(path, '/'))
        if (!name.empty() && name != ".")
            names.emplace_back(name);
    return names;
}

EfsType type_by_place(std::string_view path)
{
    return path.starts_with("/nv/item_files/") ? EfsType::item : EfsType::regular;
}

// A row of `.types`; nothing for any other line.
std::optional<std::pair<std::string, EfsType>> parse_row(std::string_view line)
{
    for (const auto& [word, type] : type_words)
        if (line.starts_with(word) && line.substr(word.size()).starts_with('/'))
            return std::pair(std::string(line.substr(word.size())), type);
    return std::nullopt;
}

} // namespace

uint32_t EfsStore::Status::mode() const
{
    constexpr uint32_t anyone_reads_and_writes = 0666, anyone_does_all = 0777;
    return static_cast<uint32_t>(type) | (type == EfsType::regular ? anyone_reads_and_writes : anyone_does_all);
}

void EfsStore::clear() const
{
    for (const auto& entry : fs::directory_iterator(tree_))
        fs::remove_all(entry.path());
}

void EfsStore::load(const std::optional<fs::path>& from) const
{
    if (!from) {
        for (const StandardFile& file : standard_files)
            put(file.path, contents_of(file), efs_create | (file.type == EfsType::item ? efs_item_file : 0U));
        return fs::create_symlink(standard_target, tree_ / standard_link);
    }
    if (!fs::is_directory(*from))
        throw UsageError("no such directory: " + from->string());
    const fs::path types = *from / types_name;
    if (const auto text = read_file(types))
        for (const std::string_view line : split(*text, '\n'))
            if (!line.empty() && !parse_row(line))
                throw UsageError(types.string() + ": not \"item PATH\" or \"regular PATH\": " + std::string(line));

    // Beside the old tree first: `from` may be that one, or a part of it.
    const fs::path copy = tree_.string() + ".new";
    fs::remove_all(copy);
    fs::copy(*from, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    fs::remove_all(tree_);
    fs::rename(copy, tree_);
}

EfsStore::Types EfsStore::exceptions() const
{
    Types types;
    for (const std::string& text = read_file(tree_ / types_name).value_or(""); const auto line : split(text, '\n'))
        // A line that a person spoilt by hand is left out.
        if (const auto row = parse_row(line))
            types.insert(*row);
    return types;
}

void EfsStore::set_type(const std::string& path, std::optional<EfsType> type) const
{
    const Types before = exceptions();
    Types types = before;
    types.erase(path);
    if (type && *type != type_by_place(path))
        types.emplace(path, *type);
    if (types == before)
        return;

    std::string text;
    for (const auto& [name, kind] : types)
        text.append(std::ranges::find(type_words, kind, &std::pair<std::string_view, EfsType>::second)->first)
            .append(name + "\n");
    if (text.empty())
        fs::remove(tree_ / types_name);
    else
        write_file(tree_ / types_name, bytes_of(text));
}

EfsStore::Place EfsStore::place_of(const std::vector<std::string>& names) const
{
    // The slash leads through a link that a person put in the place of the whole tree.
    Place place{.path = {}, .host = tree_ / "", .status = {}};
    for (const std::string& name : names) {
        place.path += "/" + name;
        place.host /= name;
    }
    struct stat info {};
    if (lstat(place.host.c_str(), &info) != 0) {
        if (errno != ENOENT)
            must(-1, place.path);
        return place;
    }
    const auto size = static_cast<uint32_t>(std::min<uint64_t>(static_cast<uint64_t>(info.st_size), UINT32_MAX));
    if (S_ISDIR(info.st_mode))
        place.status = Status{EfsType::directory, 0};
    else if (S_ISLNK(info.st_mode))
        place.status = Status{EfsType::link, size};
    else if (!S_ISREG(info.st_mode))
        fail(efs_unknown_type);
    else {
        const Types types = exceptions();
        const auto row = types.find(place.path);
        place.status = Status{row == types.end() ? type_by_place(place.path) : row->second, size};
    }
    return place;
}

EfsStore::Place EfsStore::resolve(std::string_view path, bool follow_last, bool make_directories) const
{
    if (path.empty())
        fail(efs_invalid_path);
    if (path.size() > longest_path)
        fail(efs_path_too_long);
    std::deque<std::string> left = names_of(path);
    std::vector<std::string> names;
    Place place = place_of(names);
    for (size_t links = 0; !left.empty();) {
        const std::string name = left.front();
        left.pop_front();
        if (name.size() > longest_name)
            fail(efs_name_too_long);
        const bool printable =
            std::ranges::none_of(name, [](char letter) { return static_cast<uint8_t>(letter) < ' '; });
        if (!printable || (names.empty() && name == types_name))
            fail(efs_invalid_path);
        if (name != "..")
            names.push_back(name);
        else if (!names.empty())
            names.pop_back();
        place = place_of(names);

        if (place.status && place.status->type == EfsType::link && (follow_last || !left.empty())) {
            if (++links > most_links)
                fail(efs_too_many_links);
            const std::string target = fs::read_symlink(place.host);
            const auto more = names_of(target);
            left.insert(left.begin(), more.begin(), more.end());
            names.pop_back();
            if (target.starts_with('/'))
                names.clear();
            place = place_of(names);
        } else if (!place.status && !left.empty()) {
            if (!make_directories)
                fail(efs_no_entry);
            fs::create_directories(place.host);
        } else if (!left.empty() && place.status->type != EfsType::directory) {
            fail(efs_not_directory);
        }
    }
    return place;
}

EfsStore::Place EfsStore::existing_file(std::string_view path, bool follow_last) const
{
    Place place = resolve(path, follow_last);
    if (!place.status)
        fail(efs_no_entry);
    if (place.status->type == EfsType::directory)
        fail(efs_is_directory);
    return place;
}

EfsStore::Status EfsStore::status(std::string_view path) const
{
    const Place place = resolve(path);
    if (!place.status)
        fail(efs_no_entry);
    return *place.status;
}

std::vector<EfsStore::Entry> EfsStore::list(std::string_view path) const
{
    const Place place = resolve(path);
    if (!place.status)
        fail(efs_no_entry);
    if (place.status->type != EfsType::directory)
        fail(efs_not_directory);
    std::vector<std::string> names(1);
    for (const std::string& name : names_of(place.path))
        names.insert(names.end() - 1, name);

    std::vector<Entry> entries;
    for (const auto& entry : fs::directory_iterator(place.host)) {
        names.back() = entry.path().filename();
        const bool shown = entry.is_symlink() || entry.is_directory() || entry.is_regular_file();
        if (shown && (names.size() > 1 || names.back() != types_name))
            if (const auto found = place_of(names).status)
                entries.push_back({names.back(), *found});
    }
    std::ranges::sort(entries, {}, &Entry::name);
    return entries;
}

Fd EfsStore::open(std::string_view path, uint32_t flags) const
{
    const uint32_t access = flags & efs_access;
    const bool creates = (flags & efs_create) != 0, truncates = (flags & efs_truncate) != 0;
    if ((flags & ~(efs_access | efs_create | efs_truncate)) != 0 || access == efs_access ||
        (truncates && access == efs_read_only))
        fail(efs_invalid);
    const Place place = creates ? resolve(path) : existing_file(path);
    if (place.status && place.status->type == EfsType::directory)
        fail(efs_is_directory);

    constexpr int ways[] = {O_RDONLY, O_WRONLY, O_RDWR};
    const int way = ways[access] | (creates ? O_CREAT : 0) | (truncates ? O_TRUNC : 0);
    constexpr int mode = 0644;
    Fd file(must(::open(place.host.c_str(), way | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, mode), place.path));
    if (!place.status)
        set_type(place.path, EfsType::regular);
    return file;
}

void EfsStore::remove(std::string_view path) const
{
    const Place place = existing_file(path, false);
    fs::remove(place.host);
    set_type(place.path, std::nullopt);
}

Bytes EfsStore::get(std::string_view path, size_t most) const
{
    const Place place = existing_file(path);
    if (place.status->type != EfsType::item)
        fail(efs_not_item_file);
    const Fd file = open(path, efs_read_only);
    Bytes data(most);
    const ssize_t count = read(file.get(), data.data(), data.size());
    must(count < 0 ? -1 : 0, place.path);
    data.resize(static_cast<size_t>(count));
    return data;
}

void EfsStore::put(std::string_view path, View data, uint32_t flags) const
{
    const bool creates = (flags & efs_create) != 0;
    if ((flags & ~(efs_access | efs_create | efs_truncate | efs_item_file)) != 0)
        fail(efs_invalid);
    const Place place = creates ? resolve(path, true, true) : existing_file(path);
    if (place.status && place.status->type == EfsType::directory)
        fail(efs_is_directory);
    write_file(place.host, data);
    set_type(place.path, (flags & efs_item_file) != 0 ? EfsType::item : EfsType::regular);
}

} // namespace sim
