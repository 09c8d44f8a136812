// NV responses, and the text that gives an item to write.
#include "crashdump/nv_item.h"
#include "diag/packet_fields.h"
#include "tests/fuzz/harness.h"
#include "wan_dloader/nv_transfer.h"

#include <algorithm>

namespace {

void judge(const Bytes& packet, const NvPacket& request)
{
    const auto response = nv_response(packet, request);
    if (response.empty())
        return;
    require(response.size() >= nv_packet::size, "a response has all its fields");
    require(response.data() >= packet.data() && response.data() + response.size() == packet.data() + packet.size(),
            "a response is part of its packet");
    const bool refused = packet.front() == bad_spc_code;
    require(response.size() + (refused ? 1 : 0) == packet.size(), "only the refusal's code is taken off");
    require(refused || std::ranges::equal(response.first(3), std::span(request).first(3)), "it is of the request");
    const int32_t verdict = judge_nv_status(response);
    require((verdict == 0) == (get_le16(response, nv_packet::status_at) != 1), "only a queued request waits on");
}

void parse(const std::string& text)
{
    NvPacket packet{};
    const int32_t count = nv_parse(packet, text);
    require(count >= 0 && count <= static_cast<int32_t>(nv_packet::data_size), "data fit an item");
    if (count == 0)
        return;
    require(packet[0] == 0 && get_le16(packet, nv_packet::status_at) == 0, "only item and data are filled in");
    const auto data = std::span(packet).subspan(nv_packet::data_at, nv_packet::data_size);
    require(std::ranges::all_of(data.subspan(static_cast<size_t>(count)), [](uint8_t byte) { return byte == 0; }),
            "what no data are given for is zero");

    std::string written = std::to_string(get_le16(packet, nv_packet::item_at));
    char separator = ':';
    for (const uint8_t byte : data.first(static_cast<size_t>(count))) {
        written += separator + std::to_string(byte);
        separator = ',';
    }
    NvPacket again{};
    require(nv_parse(again, written) == count && again == packet, "what was read can be written and read");
}

} // namespace

void fuzz_one(Input& input)
{
    NvPacket request{};
    std::ranges::copy(input.bytes(3), request.begin());
    const Bytes rest = input.rest();
    judge(rest, request);
    parse({rest.begin(), rest.end()});
}
