// Request: header (2), operation (2), fields, and what some carry behind them: data, a path with its zero byte, or data
// and then a path. Answer: header and operation again, fields, and data or a name. All numbers are little-endian.
#include "efs2.h"

#include <array>

namespace sim {

namespace {

constexpr size_t operation_at = 2, fields_at = 4;
// The longest request and the longest answer; it bounds the data of each.
constexpr size_t packet_size = 2048;
constexpr size_t most_files = 16, most_directories = 8;

namespace hello {
constexpr uint32_t target_packets = 8, target_bytes = 0x4000, host_packets = 4, host_bytes = 0x2000;
constexpr uint32_t iterated_packets = 2, iterated_bytes = 0x1000;
constexpr uint32_t version = 1, oldest_version = 1, newest_version = 1, features = 0x3F;
} // namespace hello

namespace query {
constexpr size_t most_entries = 1000, most_mounts = 8;
} // namespace query

namespace entry {
constexpr uint32_t regular = 0, directory = 1, link = 2, item = 7;
}

// A clock that stands still makes the answers of all tablets the same: 2024-01-01 12:00:00 UTC, and a bit later.
constexpr uint32_t changed = 1704110400, modified = changed + 60, accessed = modified + 3600;

// Where the fields are. An answer's error number, and what it repeats of the request, stand in the table below.
namespace open_packet {
constexpr size_t flags_at = 4, descriptor_at = 4;
}
namespace read_packet {
constexpr size_t count_at = 8, offset_at = 12, done_at = 12, data_at = 20;
}
namespace write_packet {
constexpr size_t offset_at = 8, done_at = 12;
}
namespace stat_packet {
constexpr size_t mode_at = 8, size_at = 12, links_at = 16, accessed_at = 20, modified_at = 24;
}
namespace directory_packet {
constexpr size_t handle_at = 4, number_at = 8;
constexpr size_t type_at = 16, mode_at = 20, size_at = 24, accessed_at = 28, modified_at = 32, changed_at = 36;
} // namespace directory_packet
namespace get_packet {
constexpr size_t most_at = 4, path_length_at = 8, count_at = 4, data_at = 14;
}
namespace put_packet {
constexpr size_t length_at = 4, flags_at = 8;
}
constexpr size_t handle_at = 4; // of a file or directory, in every request that has one

enum class Tail { none, zeros, data, path, data_and_path };

// A request, taken apart.
struct Call {
    View request;
    View data;
    std::string path;
};

using Directory = std::vector<EfsStore::Entry>;

// Errors that a host with its requests in order never sees, whatever files it asks for.
constexpr uint32_t misuses[] = {
    efs_bad_descriptor,     efs_invalid,        efs_out_of_range,         efs_invalid_sequence,
    efs_directory_not_open, efs_too_many_files, efs_too_many_directories,
};

class Efs2 : public Protocol {
public:
    Efs2(EfsStore store, const Journal& journal) : store_(std::move(store)), journal_(journal) {}

    Reply answer(View request) override;
    Bytes refusal(View request, uint32_t code) const override;

private:
    // A field that the answer repeats.
    struct Echo {
        size_t from, to, size;
    };

    struct Operation {
        uint16_t number;
        Tail tail;
        size_t request_size; // without the tail
        size_t answer_size;  // without data or a name
        size_t error_at;     // 0: the answer has no error number
        Echo echoes[2];
        size_t length_at;   // of the data or, of a write, of what was written; 0: none
        size_t sequence_at; // 0: none
        void (Efs2::*carry_out)(const Call&, Bytes&);
    };
    static const Operation operations[];

    static const Operation* find(View request);
    static bool fits(const Operation& operation, View request);
    static std::optional<Call> take_apart(const Operation& operation, View request);
    static Bytes blank(const Operation& operation, View request);

    Reply error(View request, uint8_t code, const std::string& complaint) const
    {
        journal_.complain(complaint + ": " + hex(request.first(std::min<size_t>(request.size(), fields_at))));
        return {.packet = with_code(code, request)};
    }

    void say_hello(const Call& call, Bytes& answer);
    void tell_limits(const Call& call, Bytes& answer);
    void open(const Call& call, Bytes& answer);
    void close(const Call& call, Bytes& answer);
    void read(const Call& call, Bytes& answer);
    void write(const Call& call, Bytes& answer);
    void remove(const Call& call, Bytes& answer);
    void open_directory(const Call& call, Bytes& answer);
    void read_directory(const Call& call, Bytes& answer);
    void close_directory(const Call& call, Bytes& answer);
    void stat(const Call& call, Bytes& answer);
    void put(const Call& call, Bytes& answer);
    void get(const Call& call, Bytes& answer);

    Fd& file_of(View request);
    std::optional<Directory>& directory_of(View request);

    EfsStore store_;
    const Journal& journal_;
    std::array<Fd, most_files> files_;                                   // by descriptor
    std::array<std::optional<Directory>, most_directories> directories_; // as they were when opened; by handle, from 1
};

// clang-format off
constexpr Efs2::Operation Efs2::operations[] = {
    // number, tail, request, answer, error, repeated, length, sequence
    {0,  Tail::zeros,         4,  44, 0,  {},                       0,  0,  &Efs2::say_hello},
    {1,  Tail::none,          4,  28, 0,  {},                       0,  0,  &Efs2::tell_limits},
    {2,  Tail::path,          12, 12, 8,  {},                       0,  0,  &Efs2::open},
    {3,  Tail::none,          8,  8,  4,  {},                       0,  0,  &Efs2::close},
    {4,  Tail::none,          16, 20, 16, {{4, 4, 4}, {12, 8, 4}},  12, 0,  &Efs2::read},
    {5,  Tail::data,          12, 20, 16, {{4, 4, 4}, {8, 8, 4}},   12, 0,  &Efs2::write},
    {8,  Tail::path,          4,  8,  4,  {},                       0,  0,  &Efs2::remove},
    {11, Tail::path,          4,  12, 8,  {},                       0,  0,  &Efs2::open_directory},
    {12, Tail::none,          12, 40, 12, {{4, 4, 4}, {8, 8, 4}},   0,  0,  &Efs2::read_directory},
    {13, Tail::none,          8,  8,  4,  {},                       0,  0,  &Efs2::close_directory},
    {15, Tail::path,          4,  28, 4,  {},                       0,  0,  &Efs2::stat},
    {38, Tail::data_and_path, 14, 10, 6,  {{12, 4, 2}},             0,  4,  &Efs2::put},
    {39, Tail::path,          14, 14, 8,  {{12, 12, 2}},            4,  12, &Efs2::get},
};
// clang-format on

const Efs2::Operation* Efs2::find(View request)
{
    if (request.size() < fields_at)
        return nullptr;
    const auto found = std::ranges::find(operations, get_le16(request, operation_at), &Operation::number);
    return found == std::end(operations) ? nullptr : found;
}

bool Efs2::fits(const Operation& operation, View request)
{
    constexpr size_t zeros = 40;
    if (request.size() < operation.request_size || request.size() > packet_size)
        return false;
    const size_t tail = request.size() - operation.request_size;
    switch (operation.tail) {
    case Tail::none:
        return tail == 0;
    case Tail::zeros:
        return tail == zeros;
    case Tail::data:
        return true;
    case Tail::path:
        return tail > 0;
    case Tail::data_and_path:
        return tail > get_le32(request, put_packet::length_at);
    }
    return false;
}

// Nothing when the tail has the length but not the form that it should have.
std::optional<Call> Efs2::take_apart(const Operation& operation, View request)
{
    Call call{.request = request, .data = {}, .path = {}};
    View tail = request.subspan(operation.request_size);
    if (operation.tail == Tail::zeros && std::ranges::any_of(tail, [](uint8_t byte) { return byte != 0; }))
        return std::nullopt;
    if (operation.tail == Tail::data)
        call.data = tail;
    if (operation.tail == Tail::data_and_path) {
        call.data = tail.first(get_le32(request, put_packet::length_at));
        tail = tail.subspan(call.data.size());
    }
    if (operation.tail == Tail::path || operation.tail == Tail::data_and_path) {
        const auto path = terminated(tail);
        if (!path)
            return std::nullopt;
        call.path = *path;
    }
    return call;
}

// An answer of zeros and of what it repeats.
Bytes Efs2::blank(const Operation& operation, View request)
{
    Bytes answer = copy_of(request.first(fields_at));
    answer.resize(operation.answer_size);
    for (const Echo& echo : operation.echoes)
        if (request.size() >= echo.from + echo.size)
            std::ranges::copy(request.subspan(echo.from, echo.size), answer.begin() + static_cast<ptrdiff_t>(echo.to));
    return answer;
}

Bytes Efs2::refusal(View request, uint32_t code) const
{
    const Operation* operation = find(request);
    if (operation == nullptr || operation->error_at == 0)
        return with_code(byte_of(code, 0), request);
    Bytes answer = blank(*operation, request);
    put_le32(answer, operation->error_at, code);
    if (operation->carry_out == &Efs2::open)
        put_le32(answer, open_packet::descriptor_at, UINT32_MAX);
    return answer;
}

Reply Efs2::answer(View request)
{
    const Operation* operation = find(request);
    if (operation == nullptr)
        return error(request, unknown_command, "unknown EFS2 operation");
    if (!fits(*operation, request))
        return error(request, bad_length, "EFS2 request of a wrong length");
    const auto call = take_apart(*operation, request);
    if (!call)
        return error(request, bad_parameter, "malformed EFS2 request");

    uint32_t number = 0;
    try {
        Bytes answer = blank(*operation, request);
        (this->*operation->carry_out)(*call, answer);
        return {.packet = std::move(answer),
                .length_at = operation->length_at,
                .length_size = operation->length_at == 0 ? 0U : sizeof(uint32_t),
                .sequence_at = operation->sequence_at};
    } catch (const EfsFailure& failure) {
        number = failure.number;
    } catch (const std::system_error& failure) {
        // The numbers of this machine are those of EFS2, but for one.
        number = failure.code() == std::errc::file_exists ? efs_exists : static_cast<uint32_t>(failure.code().value());
    }
    if (std::ranges::find(misuses, number) != std::end(misuses))
        journal_.complain("EFS2 error " + std::to_string(number) + ": " + hex(request.first(fields_at)));
    return {.packet = refusal(request, number), .sequence_at = operation->sequence_at};
}

void Efs2::say_hello(const Call&, Bytes& answer)
{
    using namespace hello;
    answer.resize(fields_at);
    for (const uint32_t field : {target_packets, target_bytes, host_packets, host_bytes, iterated_packets,
                                 iterated_bytes, version, oldest_version, newest_version, features})
        add_le32(answer, field);
}

void Efs2::tell_limits(const Call&, Bytes& answer)
{
    answer.resize(fields_at);
    for (const size_t field : {EfsStore::longest_name, EfsStore::longest_path, EfsStore::most_links,
                               size_t{EfsStore::longest_file}, query::most_entries, query::most_mounts})
        add_le32(answer, static_cast<uint32_t>(field));
}

Fd& Efs2::file_of(View request)
{
    const uint32_t descriptor = get_le32(request, handle_at);
    if (descriptor >= files_.size() || files_[descriptor].get() < 0)
        throw EfsFailure{efs_bad_descriptor};
    return files_[descriptor];
}

std::optional<Directory>& Efs2::directory_of(View request)
{
    const uint32_t handle = get_le32(request, handle_at);
    if (handle == 0 || handle > directories_.size() || !directories_[handle - 1])
        throw EfsFailure{efs_directory_not_open};
    return directories_[handle - 1];
}

void Efs2::open(const Call& call, Bytes& answer)
{
    const auto slot = std::ranges::find_if(files_, [](const Fd& file) { return file.get() < 0; });
    if (slot == files_.end())
        throw EfsFailure{efs_too_many_files};
    *slot = store_.open(call.path, get_le32(call.request, open_packet::flags_at));
    put_le32(answer, open_packet::descriptor_at, static_cast<uint32_t>(slot - files_.begin()));
}

void Efs2::close(const Call& call, Bytes&)
{
    file_of(call.request).close();
}

void Efs2::read(const Call& call, Bytes& answer)
{
    using namespace read_packet;
    const Fd& file = file_of(call.request);
    const uint32_t count = get_le32(call.request, count_at);
    if (count > packet_size - data_at)
        throw EfsFailure{efs_out_of_range};
    answer.resize(data_at + count);
    const ssize_t done = pread(file.get(), answer.data() + data_at, count, get_le32(call.request, offset_at));
    must(done < 0 ? -1 : 0, "read");
    answer.resize(data_at + static_cast<size_t>(done));
    put_le32(answer, done_at, static_cast<uint32_t>(done));
}

void Efs2::write(const Call& call, Bytes& answer)
{
    using namespace write_packet;
    const Fd& file = file_of(call.request);
    const uint32_t offset = get_le32(call.request, offset_at);
    if (uint64_t{offset} + call.data.size() > EfsStore::longest_file)
        throw EfsFailure{efs_no_space};
    const ssize_t done = pwrite(file.get(), call.data.data(), call.data.size(), offset);
    must(done < 0 ? -1 : 0, "write");
    put_le32(answer, done_at, static_cast<uint32_t>(done));
}

void Efs2::remove(const Call& call, Bytes&)
{
    store_.remove(call.path);
}

void Efs2::open_directory(const Call& call, Bytes& answer)
{
    const auto slot = std::ranges::find_if(directories_, [](const auto& directory) { return !directory; });
    if (slot == directories_.end())
        throw EfsFailure{efs_too_many_directories};
    *slot = store_.list(call.path);
    put_le32(answer, directory_packet::handle_at, static_cast<uint32_t>(slot - directories_.begin()) + 1);
}

// Entries are numbered from 1; behind the last one comes an entry without a name.
void Efs2::read_directory(const Call& call, Bytes& answer)
{
    using namespace directory_packet;
    const Directory& directory = *directory_of(call.request);
    const size_t number = get_le32(call.request, number_at);
    if (number == 0 || number > directory.size() + 1)
        throw EfsFailure{efs_invalid_sequence};
    if (number <= directory.size()) {
        const EfsStore::Entry& found = directory[number - 1];
        constexpr std::pair<EfsType, uint32_t> kinds[] = {
            {EfsType::regular, entry::regular},
            {EfsType::directory, entry::directory},
            {EfsType::link, entry::link},
            {EfsType::item, entry::item},
        };
        put_le32(answer, type_at,
                 std::ranges::find(kinds, found.status.type, &std::pair<EfsType, uint32_t>::first)->second);
        put_le32(answer, mode_at, found.status.mode());
        put_le32(answer, size_at, found.status.size);
        put_le32(answer, accessed_at, accessed);
        put_le32(answer, modified_at, modified);
        put_le32(answer, changed_at, changed);
        add(answer, bytes_of(found.name));
    }
    answer.push_back(0);
}

void Efs2::close_directory(const Call& call, Bytes&)
{
    directory_of(call.request).reset();
}

void Efs2::stat(const Call& call, Bytes& answer)
{
    using namespace stat_packet;
    const EfsStore::Status status = store_.status(call.path);
    put_le32(answer, mode_at, status.mode());
    put_le32(answer, size_at, status.size);
    put_le32(answer, links_at, 1);
    put_le32(answer, accessed_at, accessed);
    put_le32(answer, modified_at, modified);
}

void Efs2::put(const Call& call, Bytes&)
{
    store_.put(call.path, call.data, get_le32(call.request, put_packet::flags_at));
}

void Efs2::get(const Call& call, Bytes& answer)
{
    using namespace get_packet;
    const uint32_t most = get_le32(call.request, most_at), length = get_le32(call.request, path_length_at);
    if (most > packet_size - data_at)
        throw EfsFailure{efs_out_of_range};
    if (length != 0 && length != call.path.size() + 1)
        throw EfsFailure{efs_invalid};
    const Bytes data = store_.get(call.path, most);
    put_le32(answer, count_at, static_cast<uint32_t>(data.size()));
    add(answer, data);
}

} // namespace

std::unique_ptr<Protocol> make_efs2(EfsStore store, const Journal& journal)
{
    return std::make_unique<Efs2>(std::move(store), journal);
}

} // namespace sim
