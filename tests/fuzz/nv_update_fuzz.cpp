// NV update files: the text's readers, and whole files applied to a modem.
#include "wan_dloader/nv_update.h"

#include "app/wan_common.h"
#include "crashdump/nv_item.h"
#include "diag/exchange.h"
#include "tests/fuzz/modem.h"

#include <algorithm>

namespace {

void read_line(const std::string& line)
{
    const std::string_view text = trim_buf(line);
    require(line.ends_with(text) && !text.starts_with(' ') && !text.starts_with('\t'), "blanks in front are gone");
    const std::string_view head = trim_tail(line);
    require(line.starts_with(head) && !head.ends_with('\r') && !head.ends_with('\n'), "line ends are gone");
    if (get_nvtype(text) != NvRecordType::other)
        require(is_next_nvitem(text) && !is_comment_line(text), "a header ends data");

    for (const char* name : {"NV ITEM", "INDEX", "SIZE", "NV ITEM FILE", "EFS FILE"}) {
        std::string value = "untouched";
        const int32_t length = get_field_str(text, name, value);
        require(length < 0 ? value == "untouched" : static_cast<size_t>(length) == value.size(), "a length is told");
        require(value.find(',') == std::string::npos, "a path ends at its comma");
        const int32_t number = get_field_int(text, name);
        require(number == -1 || line.find(name) != std::string::npos, "a number stands behind its name");
    }
}

void read_data(const Bytes& contents, size_t room)
{
    const NamelessFile text(contents);
    const UniqueFile file = open_file(text.path(), "r");
    Bytes buffer(room);
    const int32_t count = get_data(buffer, file.get());
    require(count <= static_cast<int32_t>(room), "data fit their room");
    const off_t at = ftello(file.get());
    require(at >= 0 && at <= std::ssize(contents), "the next header is in the file");
    require(2 * static_cast<int64_t>(std::max(count, 0)) <= at, "a byte has two digits");
}

// Every request is checked by the modem.
void apply(const Bytes& contents)
{
    const NamelessFile text(contents);
    const std::string files[] = {text.path(), text.path()};
    require(UpdateNV2(files, "/dev/null") == 0, "a file is applied twice");
}

} // namespace

void fuzz_one(Input& input)
{
    const size_t room = input.u16();
    const Bytes contents = input.rest();
    std::string_view rest(reinterpret_cast<const char*>(contents.data()), contents.size());
    for (auto line = next_token(rest, "\n"); !line.empty(); line = next_token(rest, "\n"))
        read_line(std::string(line));
    read_data(contents, room);
    connect(prv_handle_packet, proper_answer);
    apply(contents);
}
