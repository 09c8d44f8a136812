// The flash programmer, which a modem in DLOAD mode was given and started: greeting, security mode, partition table,
// then image by image an opening, blocks and a close. An image takes the place of the old one when it is closed.
#include "protocol.h"

namespace sim {

namespace {

// Why a request is refused, with the text that goes behind the number.
struct Refusal {
    uint32_t code;
    const char* text;
};
constexpr Refusal bad_address{2, "Invalid destination address"}, bad_size{3, "Invalid length"},
    cut_short{4, "Unexpected end of packet"}, bad_command{5, "Invalid command"}, failed{7, "Operation failed"},
    out_of_sequence{15, "Command out of sequence"}, bad_features{17, "Incompatible feature bits"},
    out_of_space{18, "Out of space"}, bad_security{19, "Invalid security mode"}, as_asked{0, "Refused on demand"};

constexpr uint8_t error_code = 0x0D;

// Greeting: code, who is there, version, oldest version that is understood, feature bits. The answer has, before the
// feature bits, the largest block (4, little-endian).
namespace greeting {
constexpr uint8_t code = 0x01, reply_code = 0x02, version = 3, compatible_version = 2, features = 9;
constexpr std::string_view host = "QCOM fast download protocol host", target = "QCOM fast download protocol targ";
constexpr size_t text_at = 1, version_at = text_at + host.size(), compatible_at = version_at + 1,
                 features_at = compatible_at + 1, size = features_at + 1;
} // namespace greeting

namespace security {
constexpr uint8_t code = 0x17, reply_code = 0x18, trusted = 1;
constexpr size_t size = 2;
} // namespace security

namespace table {
constexpr uint8_t code = 0x19, reply_code = 0x1A;
constexpr size_t override_at = 1, bytes_at = 2, most = 512;
constexpr uint8_t magic[] = {0xAA, 0x73, 0xEE, 0x55};
enum Status : uint8_t { accepted, differs, not_recognized };
} // namespace table

namespace opening {
constexpr uint8_t code = 0x1B, reply_code = 0x1C;
constexpr size_t size = 2;
} // namespace opening

// Block: code, offset in the image (4, little-endian), data.
namespace block {
constexpr uint8_t code = 0x07, reply_code = 0x08;
constexpr size_t offset_at = 1, data_at = 5, most = 1024;
} // namespace block

constexpr uint8_t close_code = 0x15, close_reply_code = 0x16, erase_code = 0x1D, erase_reply_code = 0x1E;
constexpr size_t largest_image = 512U << 20;

Bytes error_packet(uint32_t code, std::string_view text)
{
    Bytes packet{error_code};
    add_le32(packet, code);
    add(packet, bytes_of(text));
    return packet;
}

class FlashProgrammer : public Protocol {
public:
    FlashProgrammer(const FlashStore& flash, const Journal& journal) : flash_(flash), journal_(journal) {}

    Reply answer(View request) override
    {
        switch (request.front()) {
        case greeting::code:
            return greet(request);
        case security::code:
            return secure(request);
        case table::code:
            return take_table(request);
        case opening::code:
            return open_image(request);
        case block::code:
            return take_block(request);
        case close_code:
            return close_image(request);
        case erase_code:
            return erase(request);
        default:
            return refuse(bad_command, "command " + hex(request.first(1)) + " to a flash programmer");
        }
    }

    Reply answer_to_damaged_frame(FrameState) override
    {
        return {.packet = error_packet(cut_short.code, cut_short.text)};
    }

    Bytes refusal(View request, uint32_t code) const override
    {
        if (request.front() == table::code)
            return {table::reply_code, byte_of(code, 0)};
        return error_packet(code, as_asked.text);
    }
    Bytes error_answer(View, uint32_t code) const override { return error_packet(code, as_asked.text); }
    bool is_block(View request) const override { return request.front() == block::code; }
    bool heeds_refusals() const override { return true; }

private:
    // A host that does not look at answers goes on with its blocks: the same complaint again says nothing new.
    Reply refuse(const Refusal& why, const std::string& complaint)
    {
        if (complaint != std::exchange(complaint_, complaint))
            journal_.complain(complaint);
        return {.packet = error_packet(why.code, why.text)};
    }

    Reply greet(View request)
    {
        using namespace greeting;
        if (request.size() != size)
            return refuse(bad_size, "greeting of a wrong length");
        if (text_of(request.subspan(text_at, host.size())) != host || request[version_at] != version ||
            request[compatible_at] != compatible_version)
            return refuse(failed, "greeting of another protocol");
        if (request[features_at] != features)
            return refuse(bad_features, "greeting with other feature bits");
        // Who greets anew begins anew.
        greeted_ = true;
        secured_ = accepted_ = false;
        image_of_ = nullptr;
        journal_.note("flash greeting");
        Bytes packet{reply_code};
        add(packet, bytes_of(target));
        add(packet, Bytes{version, compatible_version});
        add_le32(packet, block::most);
        packet.push_back(features);
        return {.packet = packet};
    }

    Reply secure(View request)
    {
        if (!greeted_)
            return refuse(out_of_sequence, "security mode before the greeting");
        if (request.size() != security::size)
            return refuse(bad_size, "security mode of a wrong length");
        if (request[1] != security::trusted)
            return refuse(bad_security, "security mode that is not 1");
        secured_ = true;
        journal_.note("flash security mode 1");
        return {.packet = {security::reply_code}};
    }

    Reply take_table(View request)
    {
        if (!secured_ || image_of_ != nullptr)
            return refuse(out_of_sequence, "partition table out of sequence");
        if (request.size() <= table::bytes_at || request.size() > table::bytes_at + table::most)
            return refuse(bad_size, "partition table of a wrong length");
        if (request[table::override_at] > 1)
            return refuse(failed, "partition table with an override that is neither 0 nor 1");

        const View bytes = request.subspan(table::bytes_at);
        const bool overrides = request[table::override_at] == 1;
        const auto present = flash_.read(table_partition);
        table::Status status = table::accepted;
        if (!starts_with(bytes, table::magic))
            status = table::not_recognized;
        else if (!overrides && present && *present != text_of(bytes))
            status = table::differs;
        accepted_ = status == table::accepted;
        if (accepted_) {
            flash_.write(table_partition, bytes);
            // Their old places mean nothing under a new table.
            if (overrides)
                for (const std::string_view name : {"boot", "system", "userdata"})
                    flash_.erase(name);
        }
        journal_.note("flash table " + std::to_string(bytes.size()) + " bytes" + (overrides ? " override" : "") + ": " +
                      std::to_string(status));
        return {.packet = {table::reply_code, status}};
    }

    Reply open_image(View request)
    {
        if (!accepted_ || image_of_ != nullptr)
            return refuse(out_of_sequence, accepted_ ? "image opened while another one is open"
                                                     : "image opened before a partition table was accepted");
        if (request.size() != opening::size)
            return refuse(bad_size, "opening of a wrong length");
        const Partition* partition = flash_.find(request[1]);
        if (partition == nullptr)
            return refuse(bad_address, "image of type " + hex(request.subspan(1)) + ", which this chip does not have");
        image_of_ = partition;
        image_.clear();
        blocks_ = 0;
        return {.packet = {opening::reply_code}};
    }

    Reply take_block(View request)
    {
        if (image_of_ == nullptr)
            return refuse(out_of_sequence, "block while no image is open");
        if (request.size() <= block::data_at || request.size() > block::data_at + block::most)
            return refuse(bad_size, "block of a wrong length");
        const View offset = request.subspan(block::offset_at, block::data_at - block::offset_at);
        if (get_le32(offset, 0) != image_.size())
            return refuse(bad_address, "block that does not follow on");
        const View data = request.subspan(block::data_at);
        if (image_.size() + data.size() > largest_image)
            return refuse(out_of_space, "image that is too large");
        add(image_, data);
        ++blocks_;
        return {.packet = with_code(block::reply_code, offset)};
    }

    Reply close_image(View request)
    {
        if (image_of_ == nullptr)
            return refuse(out_of_sequence, "close while no image is open");
        if (request.size() != 1)
            return refuse(bad_size, "close of a wrong length");
        // Nothing written: the partition stays as it was.
        if (!image_.empty())
            flash_.write(image_of_->name, image_);
        journal_.note("flash " + std::string(image_of_->name) + " " + std::to_string(image_.size()) + " bytes in " +
                      std::to_string(blocks_) + " blocks");
        image_of_ = nullptr;
        image_ = {};
        return {.packet = {close_reply_code}};
    }

    Reply erase(View request)
    {
        if (!secured_ || image_of_ != nullptr)
            return refuse(out_of_sequence, "erase out of sequence");
        if (request.size() != 1)
            return refuse(bad_size, "erase of a wrong length");
        for (const Partition& partition : flash_.chip().partitions)
            flash_.erase(partition.name);
        accepted_ = false;
        journal_.note("flash erase");
        return {.packet = {erase_reply_code}};
    }

    const FlashStore& flash_;
    const Journal& journal_;
    bool greeted_ = false;
    bool secured_ = false;
    bool accepted_ = false;               // the partition table
    const Partition* image_of_ = nullptr; // the partition whose image is open
    Bytes image_;
    size_t blocks_ = 0;
    std::string complaint_; // the last one
};

} // namespace

std::unique_ptr<Protocol> make_flash_programmer(const FlashStore& flash, const Journal& journal)
{
    return std::make_unique<FlashProgrammer>(flash, journal);
}

} // namespace sim
