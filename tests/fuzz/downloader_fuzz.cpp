// Flash programmers: Intel HEX records one by one, and a whole file sent; and what is at the port before.
#include "diag/exchange.h"
#include "diag/packet_fields.h"
#include "tests/fuzz/modem.h"
#include "wan_dloader/emergency_downloader.h"
#include "wan_dloader/image_catalogue.h"
#include "wan_dloader/run_settings.h"

namespace {

constexpr int bad_record = 69;

struct Records {
    size_t data_bytes = 0;
    bool ended = false; // by their end record
};

Records read_records(const std::string& text)
{
    Records records;
    HexState state;
    for (size_t at = 0; at < text.size() && !records.ended;) {
        const size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end == std::string::npos ? end : end - at + 1);
        at += line.size();
        std::vector<uint8_t> data = {1};
        int32_t eof = -1;
        try {
            const int32_t type = ParseIntelHex(line, state, data, eof);
            require(type >= hex_damaged && type <= 5, "a record has a known type");
            require(eof == (type == 1 ? 1 : 0), "only the end record is the end");
            require(data.empty() || (type == 0 && data.size() <= hex_record_bytes), "data are those of a data record");
            require(data.size() * 2 + 9 <= line.size() || data.empty(), "a byte has two digits");
            records.data_bytes += data.size();
            records.ended = eof != 0;
        } catch (const ProcessEnd& end_of_process) {
            require(end_of_process.status == bad_record, "the end has its status");
        }
    }
    return records;
}

// The number of data bytes that the modem was sent.
size_t send_file(const std::string& text, int32_t& result)
{
    size_t sent = 0;
    connect(prv_handle_packet, [&sent](std::span<const uint8_t> request) {
        const size_t address_size = s_dlWrite32Flag != 0 ? 4 : 3;
        if (get_u8(request, 0) == (s_dlWrite32Flag != 0 ? 0x0F : 0x01)) {
            const size_t length = get_be16(request, 1 + address_size);
            require(request.size() == 1 + address_size + 2 + length, "a write is as long as it says");
            sent += length;
        }
        return std::optional(proper_answer(request));
    });
    ImagePath = "/data/";
    sSelectedModel = model_mdm9615;
    add_file("/data/" + std::string(modem_img[model_mdm9615].downloader),
             {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    result = SendDownLoader();
    return sent;
}

// What is at the port?
void ask(Input& input)
{
    connect(prv_handle_packet, modem_of(input));
    require(IsDLoadMode("/dev/null") <= 1 && IsDiagMode("/dev/null") <= 1, "it is so or not");
    require(Switch2DLoadMode("/dev/null") == 0, "that is only tried");
}

} // namespace

void fuzz_one(Input& input)
{
    const uint8_t settings = input.u8();
    if ((settings & 2) != 0)
        return ask(input);
    s_dlWrite32Flag = settings & 1;
    const size_t digits = input.u8();
    const Bytes bytes = input.rest();
    const std::string text(bytes.begin(), bytes.end());
    if (digits <= 8)
        require(digits == 8 || ParseUint(text, digits) >> 4 * digits == 0, "a number has as many digits as were asked");
    const Records records = read_records(text);

    int32_t result = 0;
    const size_t sent = send_file(text, result);
    require(sent <= records.data_bytes || text.find('\0') != std::string::npos, "only what the file holds is sent");
    if (result == 0 && text.find('\0') == std::string::npos)
        require(records.ended && sent == records.data_bytes, "all that the file holds is sent");
}
