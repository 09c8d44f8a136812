#include "options.h"

#include <algorithm>

namespace sim {

namespace {

struct OptionRow {
    std::string_view name;
    const char* argument;
    const char* help;
    void (*apply)(Options&, std::string_view);
};

uint32_t number(std::string_view text, uint32_t most = UINT32_MAX)
{
    if (const auto value = parse_number(text, most))
        return *value;
    throw UsageError("not a number up to " + std::to_string(most) + ": " + std::string(text));
}

// The words of an option that has a choice of them, and what each stands for.
template <typename Value>
using Choice = std::pair<std::string_view, Value>;

constexpr Choice<Mode> modes[] = {{"normal", Mode::normal}, {"crashed", Mode::dload},     {"off", Mode::off},
                                  {"absent", Mode::absent}, {"fastboot", Mode::fastboot}, {"bootrom", Mode::bootrom}};
constexpr Choice<Mode> boots[] = {{"normal", Mode::normal}, {"crashed", Mode::dload},     {"partial", Mode::partial},
                                  {"never", Mode::absent},  {"fastboot", Mode::fastboot}, {"bootrom", Mode::bootrom}};
constexpr Choice<bool> switches[] = {{"on", true}, {"off", false}};
constexpr Choice<Bwan> bwans[] = {
    {"ok", Bwan::ok}, {"missing", Bwan::missing}, {"refused", Bwan::refused}, {"failing", Bwan::failing}};
// The first characters name the board.
constexpr Choice<const char*> boards[] = {{"osprey", "0c01020300000001\n"},
                                          {"pipit", "0d01020300000001\n"},
                                          {"quail", "0010020300000001\n"},
                                          {"other", "0b01020300000001\n"}};

template <typename Row>
std::string_view word_of(const Row& row)
{
    if constexpr (requires { row.first; })
        return row.first;
    else if constexpr (requires { row.word; })
        return row.word;
    else
        return row.name;
}

// The row of a table that a word chooses.
template <typename Row, size_t Count>
const Row& chosen(const Row (&rows)[Count], std::string_view text)
{
    std::string words;
    for (const Row& row : rows) {
        if (word_of(row) == text)
            return row;
        words.append(words.empty() ? "" : ", ").append(word_of(row));
    }
    throw UsageError("not one of " + words + ": " + std::string(text));
}

// NAME=TEXT with \n and \xNN, or NAME=- for no file.
void show_usb_file(Options& options, std::string_view given)
{
    const size_t equals = std::min(given.find('='), given.size());
    const std::string_view name = chosen(usb_files, given.substr(0, equals)).name;
    const std::string_view text = given.substr(std::min(equals + 1, given.size()));
    const auto plain = unescaped(text);
    if (equals == given.size() || !plain)
        throw UsageError("not NAME=TEXT, with \\n and \\xNN: " + std::string(given));
    options.machine.modem.sysfs.texts[std::string(name)] = text == "-" ? std::nullopt : plain;
}

// A word, or descriptors as hex digits.
void add_usb_device(Options& options, std::string_view given)
{
    const auto bytes = given == "fastboot" ? usb_fastboot_device()
                       : given == "adb"    ? usb_adb_device()
                                           : parse_hex(given);
    if (!bytes)
        throw UsageError("not fastboot, adb or hex digits: " + std::string(given));
    options.machine.modem.usb.others.push_back(*bytes);
}

std::vector<std::string> module_names(std::string_view list)
{
    std::vector<std::string> names, known;
    for (const std::string& file : module_files())
        known.push_back(module_name(file));
    if (list == "none")
        return names;
    for (const std::string_view name : split(list, ',')) {
        names.push_back(module_name(name));
        if (std::ranges::find(known, names.back()) == known.end())
            throw UsageError("no such module: " + printable(name));
    }
    return names;
}

// SIZE, NAME=SIZE or NAME=SIZE@BASE, separated by commas.
std::vector<Region> regions(std::string_view list)
{
    constexpr uint64_t first_base = 0x40000000, alignment = 0x10000, end_of_addresses = uint64_t{1} << 32;
    std::vector<Region> all;
    uint64_t next_base = first_base;
    for (const std::string_view given : split(list, ',')) {
        const auto wrong = [&] {
            return UsageError("not a region (SIZE, NAME=SIZE, NAME=SIZE@BASE): " + std::string(given));
        };
        const size_t equals = given.rfind('=');
        const bool named = equals != std::string_view::npos;
        const auto numbers = split(named ? given.substr(equals + 1) : given, '@');
        const auto size = parse_number(numbers[0], UINT32_MAX, true);
        const auto base =
            numbers.size() == 2 ? parse_number(numbers[1]) : std::optional(static_cast<uint32_t>(next_base));
        if (!size || !base || numbers.size() > 2 || uint64_t{*base} + *size > end_of_addresses ||
            next_base >= end_of_addresses)
            throw wrong();
        next_base = (uint64_t{*base} + *size + alignment) / alignment * alignment;

        const std::string count = std::to_string(all.size());
        const std::string name = "REGION" + std::string(count.size() < 2 ? "0" : "") + count + ".BIN";
        all.push_back({named ? std::string(given.substr(0, equals)) : name, *base, *size});
    }
    return all;
}

constexpr const char* default_regions = "SHARED.BIN=88K@0x2A000000,CODE.BIN=64K@0x08800000,"
                                        "BOOT.BIN=128K@0x00020000,AUDIO.BIN=32K@0x28400000,MAIN.BIN=2M@0x40000000";

constexpr OptionRow option_rows[] = {
    {"--root", "DIR", "keep the tablet in DIR, made if it is not there",
     [](Options& options, std::string_view text) {
         if (text.empty())
             throw UsageError("--root needs the name of a directory");
         options.root = fs::absolute(text);
     }},
    {"--tessel", "PATH", "the program shown as /system/bin/tessel (default: tessel beside or above this program)",
     [](Options& options, std::string_view text) {
         if (!fs::is_regular_file(text))
             throw UsageError("no such program: " + std::string(text));
         options.tablet.tessel = text;
     }},
    {"--modem", "MODE", "normal, crashed, fastboot, bootrom, off or absent (normal)",
     [](Options& options, std::string_view text) { options.mode = chosen(modes, text).second; }},
    {"--boot", "LIST",
     "what each power-up leads to, with commas: normal, crashed, partial, fastboot, bootrom, never (normal)",
     [](Options& options, std::string_view text) {
         options.machine.modem.boot.clear();
         for (const std::string_view word : split(text, ','))
             options.machine.modem.boot.push_back(chosen(boots, word).second);
     }},
    {"--chip", "CHIP", "the modem's chip: mdm9615, mdm9600 or qsc6270 (mdm9615)",
     [](Options& options, std::string_view text) { options.machine.modem.chip = &chosen(chips, text); }},
    {"--flash", "DIR", "the files that are the partitions of the modem's flash to begin with",
     [](Options& options, std::string_view text) { options.flash = text; }},
    {"--diag-fastboot", "on|off", "whether the modem knows the DIAG request that leads to fastboot (on)",
     [](Options& options, std::string_view text) {
         options.machine.modem.knows_fastboot = chosen(switches, text).second;
     }},
    {"--adb", "on|off", "whether a running modem has an adb interface (on)",
     [](Options& options, std::string_view text) { options.machine.modem.usb.adb = chosen(switches, text).second; }},
    {"--usb-device", "KIND", "one more device on the bus: fastboot, adb, or the bytes of its descriptors; many times",
     add_usb_device},
    {"--power-up", "MS", "how long the modem takes from being switched on to its nodes (1500)",
     [](Options& options, std::string_view text) {
         options.machine.modem.power_up = std::chrono::milliseconds(number(text));
     }},
    {"--protocol", "N", "version of the DLOAD protocol; unframed reads from 7 on (7)",
     [](Options& options, std::string_view text) {
         options.machine.modem.dload_version = static_cast<uint8_t>(number(text, UINT8_MAX));
     }},
    {"--regions", "LIST", "memory of a crashed modem: SIZE, NAME=SIZE or NAME=SIZE@BASE, with commas; 64K, 2M, 0x100",
     [](Options& options, std::string_view text) { options.machine.modem.regions = regions(text); }},
    {"--region-table", "HEX", "the reply to the region table request, byte for byte, instead of the true one",
     [](Options& options, std::string_view text) {
         options.machine.modem.region_table = parse_hex(text);
         if (!options.machine.modem.region_table)
             throw UsageError("not hex digits: " + std::string(text));
     }},
    {"--seed", "N", "another seed, another memory (1)",
     [](Options& options, std::string_view text) { options.machine.modem.seed = number(text); }},
    {"--sku", "N", "the modem's SKU (0)",
     [](Options& options, std::string_view text) { options.machine.modem.sku = number(text); }},
    {"--revision", "TEXT", "the firmware revision that ATI shows",
     [](Options& options, std::string_view text) { options.machine.modem.revision = text; }},
    {"--apps", "TEXT", "the version of the modem's applications",
     [](Options& options, std::string_view text) { options.machine.modem.apps_version = text; }},
    {"--nv", "FILE", "NV items to begin with, one a line, such as \"550: 08 1A\" or \"20/1: 00 05\"",
     [](Options& options, std::string_view text) { options.nv = text; }},
    {"--efs", "DIR", "the tree of files that the modem's file system is a copy of to begin with",
     [](Options& options, std::string_view text) { options.efs = text; }},
    {"--spc", "DIGITS", "the service programming code, six digits (000000)",
     [](Options& options, std::string_view text) {
         if (text.size() != 6 || text.find_first_not_of("0123456789") != std::string_view::npos)
             throw UsageError("not six digits: " + std::string(text));
         options.machine.modem.spc = text;
     }},
    {"--reenumerate", "MS", "how long the nodes are away in a reset (300)",
     [](Options& options, std::string_view text) {
         options.machine.modem.reenumerate = std::chrono::milliseconds(number(text));
     }},
    {"--usb-place", "PLACE", "where /sys shows the modem: 1-1, 2-1, 1-2 or none (1-1)",
     [](Options& options, std::string_view text) { options.machine.modem.sysfs.place = &chosen(usb_places, text); }},
    {"--usb-file", "NAME=TEXT", "what a file of the USB device says, with \\n and \\xNN; NAME=- leaves it out",
     show_usb_file},
    {"--board", "BOARD", "osprey, pipit, quail or other (osprey)",
     [](Options& options, std::string_view text) { options.tablet.board_id = chosen(boards, text).second; }},
    {"--bwan", "KIND", "what /dev/bwan is: ok, missing, refused (to whoever opens it) or failing (ok)",
     [](Options& options, std::string_view text) { options.machine.bwan = chosen(bwans, text).second; }},
    {"--modules", "LIST", "the kernel modules that are loaded, with commas, or none (all six)",
     [](Options& options, std::string_view text) { options.tablet.modules = module_names(text); }},
    {"--without", "FILE", "a module file that is not there, such as option.ko; may be given many times",
     [](Options& options, std::string_view text) {
         const auto files = module_files();
         if (std::ranges::find(files, text) == files.end())
             throw UsageError("no module file: " + std::string(text));
         options.tablet.missing_modules.emplace_back(text);
     }},
    {"--fail", "TOOL[:WORD]", "calls of this tool fail, or those with an argument WORD or a file WORD; many times",
     [](Options& options, std::string_view text) { options.machine.failures.push_back(ToolFailure::parse(text)); }},
    {"--wifi-only", "", "no modem, no power files",
     [](Options& options, std::string_view) { options.machine.wifi_only = true; }},
    {"--fault", "[MODE/]WORD@N[+][:ARG]", "fail at the N-th reply, with + from there on; may be given many times",
     [](Options& options, std::string_view text) { options.machine.modem.faults.push_back(Fault::parse(text)); }},
};

constexpr std::pair<std::string_view, Job> jobs[] = {
    {"serve", Job::serve}, {"run", Job::run}, {"check", Job::check}, {"--help", Job::help}, {"-h", Job::help},
};

} // namespace

Options parse_options(std::vector<std::string_view> arguments)
{
    Options options;
    options.machine.modem.regions = regions(default_regions);
    options.machine.modem.revision = "VM1.0.0";
    options.machine.modem.apps_version = "VA1.0.0";
    options.machine.modem.spc = "000000";

    const auto front = [&] { return arguments.empty() ? std::string_view() : arguments.front(); };
    const auto shift = [&] { arguments.erase(arguments.begin()); };
    const auto job = std::ranges::find(jobs, front(), &std::pair<std::string_view, Job>::first);
    if (job != std::end(jobs)) {
        options.job = job->second;
        shift();
    }
    while (front().starts_with("-") && front() != "--") {
        const std::string_view given = front(), name = given.substr(0, given.find('='));
        const auto row = std::ranges::find(option_rows, name, &OptionRow::name);
        if (row == std::end(option_rows))
            throw UsageError("unknown option " + std::string(given));
        shift();
        const bool has_value = name.size() < given.size();
        if (*row->argument == '\0') {
            if (has_value)
                throw UsageError(std::string(name) + " takes no value");
            row->apply(options, {});
            continue;
        }
        if (has_value) {
            row->apply(options, given.substr(name.size() + 1));
            continue;
        }
        if (arguments.empty())
            throw UsageError(std::string(given) + " needs " + row->argument);
        row->apply(options, front());
        shift();
    }
    if (front() == "--")
        shift();
    options.command.assign(arguments.begin(), arguments.end());

    const bool takes_command = options.job == Job::command || options.job == Job::run;
    if (takes_command == options.command.empty() && options.job != Job::help)
        throw UsageError(takes_command ? "no command to run" : "unexpected " + options.command.front());
    if ((options.job == Job::serve || options.job == Job::run) && !options.root)
        throw UsageError("--root DIR is missing");
    if (options.machine.wifi_only && options.mode.value_or(Mode::absent) != Mode::absent)
        throw UsageError("a tablet that is --wifi-only has no modem: only --modem absent goes with it");
    options.machine.modem.mode = options.mode.value_or(options.machine.wifi_only ? Mode::absent : Mode::normal);
    return options;
}

std::string help()
{
    constexpr size_t width = 26;
    std::string text = R"(virtual_tablet: a tablet with a virtual modem, for commands to run in

  virtual_tablet [OPTIONS] [--] CMD...       run CMD in a fresh tablet with the modem attached; its exit status
  virtual_tablet serve --root DIR [OPTIONS]  make the tablet in DIR, attach the modem, print "ready" and serve
                                             until SIGTERM, SIGINT or the end of standard input
  virtual_tablet run --root DIR [--] CMD...  run CMD in the tablet of DIR; its exit status
  virtual_tablet check                       tell whether sandboxes work on this machine, and the remedy if not

options
)";
    for (const OptionRow& row : option_rows) {
        std::string form = "  " + std::string(row.name) + " " + row.argument;
        form.resize(std::max(width, form.size() + 1), ' ');
        text += form + row.help + "\n";
    }
    text += "\nfaults (at-... count AT commands, the others replies on ttyUSB0, from 1 in every mode of the modem;\n"
            "MODE is diag, dload or flash: in that one only)\n" +
            Fault::help();
    text += "\nexit status: CMD's; 2 for a wrong command line, 1 when the tablet cannot be made, 127 when the sandbox "
            "cannot be started\n";
    return text;
}

} // namespace sim
