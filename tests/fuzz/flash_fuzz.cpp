// What the flash programmer replies while the modem's images are written.
#include "wan_dloader/streaming_download.h"

#include "diag/exchange.h"
#include "diag/packet_fields.h"
#include "tests/fuzz/modem.h"
#include "wan_dloader/image_catalogue.h"
#include "wan_dloader/run_settings.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr uint8_t error_code = 0x0D, table_code = 0x19, open_code = 0x1B, stream_code = 0x07, close_code = 0x15;
constexpr size_t error_size = 5, stream_header = 5;

// What the modem was sent of its images.
struct Images {
    Bytes each; // all of them are the same
    Bytes sent; // of the one that is open
    size_t whole = 0;
};
Images s_images;
Bytes s_table_answer; // the last

void look_at(std::span<const uint8_t> request)
{
    switch (get_u8(request, 0)) {
    case open_code:
        s_images.sent.clear();
        break;
    case stream_code: {
        require(get_le32(request, 1) == s_images.sent.size(), "an image is sent from its beginning to its end");
        const auto data = request.subspan(stream_header);
        s_images.sent.insert(s_images.sent.end(), data.begin(), data.end());
        break;
    }
    case close_code:
        require(s_images.sent == s_images.each, "all of an image is sent");
        ++s_images.whole;
        break;
    default:
        break;
    }
}

// Has the code behind the request's for an answer, and a status where that has one; but see faulty_modem.
Modem programmer(Input& input)
{
    return [&input, last = Bytes()](std::span<const uint8_t> request) mutable -> std::optional<Bytes> {
        if (!std::ranges::equal(request, last))
            look_at(request);
        last.assign(request.begin(), request.end());
        const uint8_t code = get_u8(request, 0);
        Bytes answer = {static_cast<uint8_t>(code + 1), 0};
        if (input.u8() % 2 != 0)
            answer = input.piece();
        if (code == table_code)
            s_table_answer = answer;
        return answer.empty() ? std::nullopt : std::optional(answer);
    };
}

bool is_refusal(const Bytes& answer)
{
    return answer.size() >= error_size && answer.front() == error_code;
}

// The tablet's files for the stage: the chip's downloader, partition table and images, and the modem's power.
void add_files(const ModemModel& model, const Bytes& table)
{
    constexpr std::string_view downloader = ":0400000001020304F2\n:00000001FF\n";
    add_file(ImagePath + model.downloader, {reinterpret_cast<const uint8_t*>(downloader.data()), downloader.size()});
    add_file(ImagePath + model.partition_table, table);
    for (const ModemImage& image : model.used_images())
        add_file(ImagePath + image.file, s_images.each);
    add_file("/sys/wan/power", {});
}

void write_images(const ModemModel& model)
{
    const int32_t result = UpdateModemImages("/dev/null");
    require(result == 0 || result == 1 || result == download_flash_refused, "the stage has one of its results");
    const bool is_accepted =
        s_table_answer.size() >= 2 && s_table_answer[0] == table_code + 1 && s_table_answer[1] == 0;
    require((result == 0) == is_accepted, "images are written with a table that was accepted");
    require(s_images.whole == (is_accepted ? model.used_images().size() : 0), "all of them, or none");
    require(!is_refusal(s_table_answer) || result == download_flash_refused, "a refusal is told");
}

void erase(Input& input)
{
    const Bytes answer = input.piece();
    connect(prv_handle_packet, [&](std::span<const uint8_t>) { return std::optional(answer); });
    require((SendErase() == download_flash_refused) == is_refusal(answer), "an erase is refused or not");
}

} // namespace

void fuzz_one(Input& input)
{
    const uint8_t settings = input.u8();
    const size_t chip = settings % modem_img.size();
    ImagePath = "/data/";
    sSelectedModel = static_cast<int32_t>(chip);
    sFlashMode = flash_mode::modem_images;
    sFlashAllPartitions = settings >> 7;
    s_dlSkipUSB_ReEnumerate = 1;
    s_dlWrite32Flag = settings >> 6 & 1;
    sTotalBlocksToFlash = input.u8();
    const Bytes table = input.piece();
    s_table_answer.clear();
    s_images = {.each = input.piece()};
    add_files(modem_img.at(chip), table);

    Modem modem = programmer(input);
    bool is_running = false; // the programmer, once it was told to go
    connect(prv_handle_packet, [&](std::span<const uint8_t> request) {
        constexpr uint8_t go = 0x05;
        if (is_running)
            return modem(request);
        is_running = get_u8(request, 0) == go;
        return std::optional(proper_answer(request));
    });
    write_images(modem_img.at(chip));
    erase(input);
}
