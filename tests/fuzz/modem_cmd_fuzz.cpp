// Requests as they are typed, and what the modem and its services reply.
#include "crashdump/modem_cmd.h"

#include "crashdump/nv_item.h"
#include "tests/fuzz/modem.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Files that the product makes in the current directory are those of the process, by their numbers.
class AmongOpenFiles {
public:
    AmongOpenFiles() : before_(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        require(chdir("/proc/self/fd") == 0, "the open files are a directory");
    }
    AmongOpenFiles(AmongOpenFiles&&) = delete;
    AmongOpenFiles& operator=(AmongOpenFiles&&) = delete;
    AmongOpenFiles(const AmongOpenFiles&) = delete;
    AmongOpenFiles& operator=(const AmongOpenFiles&) = delete;
    ~AmongOpenFiles() { require(fchdir(before_.get()) == 0, "the directory from before is there"); }

private:
    UniqueFd before_;
};

void parse(const std::string& text)
{
    std::array<uint8_t, typed_request_size> request{};
    const uint32_t count = diag_parse2(request, text);
    require(count <= request.size(), "a request fits its buffer");
    std::string written;
    for (const uint8_t byte : std::span(request).first(count))
        written += std::to_string(byte) + ", ";
    std::array<uint8_t, typed_request_size> again{};
    require(diag_parse2(again, written) == count, "what was read can be written");
    require(std::ranges::equal(std::span(again).first(count), std::span(request).first(count)), "and read again");
}

void ask(const std::string& text, size_t room)
{
    Bytes response(room);
    uint32_t length = 0;
    if (send_diagcmd2(text, response, length) != 0)
        require(length == 0, "no answer has no length");
    require(length <= room, "an answer fits its room");
}

void ask_for_sku()
{
    constexpr uint32_t untouched = 0xA5A5A5A5;
    add_file("/dev/ttyUSB0", {});
    uint32_t sku = untouched;
    require(get_modem_sku(sku) == 0 || sku == untouched, "a failure leaves its output alone");
    show_modem_sku();
}

void read_and_write_item(const std::string& text)
{
    NvPacket packet{};
    if (nv_parse(packet, text) != 0)
        nvitem_write(packet);
    nvitem_read(packet[nv_packet::item_at], packet[nv_packet::data_at]);
}

void pull(size_t& said)
{
    const NamelessFile file;
    const std::string number = std::to_string(file.descriptor());
    const AmongOpenFiles here;
    pull_modem_file("/var/" + number);
    require(file.contents().size() <= said, "a pulled file has only what the modem said");
}

void push(const Bytes& contents, const std::string& destination)
{
    const NamelessFile file(contents);
    push_file2modem(file.path() + "," + destination);
}

void run(const Bytes& contents)
{
    const NamelessFile file(contents);
    run_modem_cmd(file.path());
}

} // namespace

void fuzz_one(Input& input)
{
    const uint8_t what = input.u8();
    const uint8_t settings = input.u8();
    const std::string text = input.text();
    const Bytes contents(text.begin(), text.end());
    size_t said = 0;
    Modem modem = modem_of(input);
    connect(rcv_handle_packet, [&](std::span<const uint8_t> request) {
        auto packet = modem(request);
        said += packet ? packet->size() : 0;
        return packet;
    });
    s_verbose = settings & 1;
    s_exit_on_timeout = settings >> 1 & 1;

    constexpr uint8_t parsing = 0, asking = 1, showing = 2, log = 3, one_log = 4, pulling = 5, pushing = 6, running = 7,
                      sku = 8;
    switch (what % 10) {
    case parsing:
        return parse(text);
    case asking:
        return ask(text, input.u8());
    case showing:
        return send_diagcmd(text);
    case log:
        return dump_mdmkernel_log();
    case one_log:
        return (void)dump_dmesg(contents);
    case pulling:
        return pull(said);
    case pushing:
        return push(input.piece(), text);
    case running:
        return run(contents);
    case sku:
        return ask_for_sku();
    default:
        return read_and_write_item(text);
    }
}
