#include "modules.h"

#include <array>
#include <sys/inotify.h>

namespace sim {

namespace {

struct ModuleRow {
    const char* file;
    std::string_view name;
    uint32_t size;
    std::span<const std::string_view> needs;
};

// In order of loading.
constexpr std::string_view option_needs[] = {"usb_wwan", "usbserial"};
constexpr std::string_view usb_wwan_needs[] = {"usbserial"};
constexpr ModuleRow module_rows[] = {
    {"usbserial.ko", "usbserial", 27418, {}}, {"usb_wwan.ko", "usb_wwan", 10230, usb_wwan_needs},
    {"ehci-hcd.ko", "ehci_hcd", 45212, {}},   {"option.ko", "option", 13371, option_needs},
    {"rmnet_usb.ko", "rmnet_usb", 14210, {}}, {"bwan.ko", "bwan", 8652, {}},
};
constexpr size_t longest_list = size_t{1} << 22; // a program of the tablet may put anything there
constexpr ModuleRow unknown{"", "", 16384, {}};

const ModuleRow& row_of(std::string_view name)
{
    const auto* const row = std::ranges::find(module_rows, name, &ModuleRow::name);
    return row == std::end(module_rows) ? unknown : *row;
}

// A line is "name size references users state address"; users is "-" or names that each end with a comma.
struct Line {
    std::string name, size, references, users, rest;
};

std::vector<Line> parse(std::string_view text)
{
    std::vector<Line> lines;
    for (const std::string_view line : split(text, '\n')) {
        const auto words = split(line, ' ');
        constexpr size_t fewest = 4;
        if (words.size() < fewest)
            continue;
        const size_t rest = static_cast<size_t>(words[3].data() - line.data()) + words[3].size();
        lines.push_back({std::string(words[0]), std::string(words[1]), std::string(words[2]), std::string(words[3]),
                         std::string(line.substr(rest))});
    }
    return lines;
}

std::string print(const std::vector<Line>& lines)
{
    std::string text;
    for (const Line& line : lines)
        text.append(line.name + " " + line.size + " ")
            .append(line.references + " " + line.users)
            .append(line.rest + "\n");
    return text;
}

const Line* find(const std::vector<Line>& lines, std::string_view name)
{
    const auto line = std::ranges::find(lines, name, &Line::name);
    return line == lines.end() ? nullptr : &*line;
}

void count(Line& line, int more)
{
    const auto references = static_cast<int64_t>(parse_number(line.references).value_or(0));
    line.references = std::to_string(std::max<int64_t>(references + more, 0));
}

void add_module(std::vector<Line>& lines, const std::string& name)
{
    const ModuleRow& row = row_of(name);
    for (Line& line : lines) {
        if (std::ranges::find(row.needs, line.name) == row.needs.end())
            continue;
        line.users = name + "," + (line.users == "-" ? "" : line.users);
        count(line, 1);
    }
    lines.insert(lines.begin(), {name, std::to_string(row.size), "0", "-", " Live 0x00000000"});
}

void drop_module(std::vector<Line>& lines, const std::string& name)
{
    std::erase_if(lines, [&](const Line& line) { return line.name == name; });
    for (Line& line : lines) {
        std::string users;
        for (const std::string_view user : split(line.users, ','))
            if (!user.empty() && user != name)
                users.append(user).append(user == "-" ? "" : ",");
        if (users.size() < line.users.size())
            count(line, -1);
        line.users = users.empty() ? "-" : users;
    }
}

} // namespace

std::vector<std::string> module_files()
{
    std::vector<std::string> files;
    for (const ModuleRow& row : module_rows)
        files.emplace_back(row.file);
    return files;
}

std::string module_name(const fs::path& file)
{
    std::string name = file.extension() == ".ko" ? file.stem() : file.filename();
    std::ranges::replace(name, '-', '_');
    return name;
}

std::string module_list(std::span<const std::string> names)
{
    std::vector<Line> lines;
    for (const std::string& name : names)
        add_module(lines, name);
    return print(lines);
}

Modules::Modules(const fs::path& proc)
    : file_(proc / "modules"), changes_(must(inotify_init1(IN_NONBLOCK | IN_CLOEXEC), "inotify"))
{
    constexpr uint32_t changes = IN_CREATE | IN_CLOSE_WRITE | IN_DELETE | IN_MOVE | IN_ATTRIB;
    must(inotify_add_watch(fd(), proc.c_str(), changes), proc);
}

void Modules::seen() const
{
    std::array<char, 4096> events{};
    while (read(fd(), events.data(), events.size()) > 0) {
    }
}

bool Modules::loaded(std::span<const std::string_view> names) const
{
    const auto text = read_file(file_, longest_list);
    if (!text)
        return true;
    const auto lines = parse(*text);
    return std::ranges::all_of(names, [&](std::string_view name) { return find(lines, name) != nullptr; });
}

std::string Modules::insert(const std::string& name) const
{
    const auto text = read_file(file_, longest_list);
    if (!text)
        return {};
    auto lines = parse(*text);
    if (find(lines, name) != nullptr)
        return "File exists";
    for (const std::string_view needed : row_of(name).needs)
        if (find(lines, needed) == nullptr)
            return "Unknown symbol in module";
    add_module(lines, name);
    save(print(lines));
    return {};
}

std::string Modules::remove(const std::string& name) const
{
    const auto text = read_file(file_, longest_list);
    if (!text)
        return {};
    auto lines = parse(*text);
    const Line* line = find(lines, name);
    if (line == nullptr)
        return "No such file or directory";
    if (line->references != "0")
        return "Resource temporarily unavailable";
    drop_module(lines, name);
    save(print(lines));
    return {};
}

void Modules::save(const std::string& text) const
{
    // Nobody ever reads half a list.
    const fs::path draft = file_.parent_path() / ".modules";
    write_file(draft, bytes_of(text));
    fs::rename(draft, file_);
}

} // namespace sim
