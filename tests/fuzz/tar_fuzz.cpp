// Firmware packages: their members listed, read in place and extracted.
#include "platform/tar.h"
#include "tests/fuzz/harness.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t block = 512;

Bytes read_in_place(const std::string& name, size_t piece)
{
    Bytes all;
    Bytes buffer(piece);
    int64_t count = 0;
    while ((count = tar_fread(buffer)) > 0) {
        require(count <= std::ssize(buffer), "a read fits its room");
        all.insert(all.end(), buffer.begin(), buffer.begin() + count);
    }
    require(count == 0 && tar_feof() == 1, ("all can be read of " + name).c_str());
    return all;
}

void read_lines(size_t room, size_t size)
{
    std::vector<char> line(room);
    size_t lines = 0;
    while (tar_fgets(line) != nullptr) {
        require(strnlen(line.data(), line.size()) < line.size(), "a line ends in its room");
        require(++lines <= size, "a line has a byte at least");
    }
    require(tar_feof() == 1 || room < 2, "lines lead to the end");
}

void extract(int32_t slot, size_t piece, size_t archive)
{
    const std::string name = tar_get_file_name(slot);
    const auto size = static_cast<size_t>(tar_get_file_size(slot));
    const auto offset = static_cast<size_t>(tar_get_file_offset(slot));
    require(size > 0 && offset % block == 0 && offset >= block && offset <= archive + block, "a member has its place");
    require(name.find('/') == std::string::npos, "directories are no part of a name");
    const int32_t first = tar_seek_file(name);
    require(first >= 0 && first <= slot, "a member is found by its name");
    if (first != slot || name.empty())
        return;

    const NamelessFile target;
    const bool whole = size <= archive && offset <= archive - size;
    require((tar_fextract_to(name, target.path()) == 0) == whole, "what the archive holds can be extracted");
    require((tar_fopen(name) == slot) == whole, "what the archive holds can be opened");
    if (whole) {
        const Bytes extracted = target.contents();
        require(extracted.size() == size && read_in_place(name, piece) == extracted, "both ways give the same");
        require(tar_fopen(name) == slot, "a member can be opened again");
        read_lines(piece, size);
    }
    (void)tar_fclose();
}

} // namespace

void fuzz_one(Input& input)
{
    const size_t piece = size_t{input.u8()} + 1;
    const Bytes bytes = input.rest();
    const NamelessFile archive(bytes);
    const int32_t result = tar_init(archive.path());
    require((result == 0) == (tar_seek_file2() == 0), "a walk ends as the list did");
    tar_show_files();
    tar_show_files2();
    tar_fdump_16bytes();
    int32_t slot = 0;
    for (; result == 0 && tar_get_file_name(slot) != nullptr; ++slot)
        extract(slot, piece, bytes.size());
    if (result == 0)
        require(tar_get_files_count() == (slot < 20 ? slot : -1), "members are counted");
    require(tar_get_file_size(slot) == -1 && tar_fopen("") == -1, "there is nothing behind the list");
    tar_deinit();
    require(tar_get_files_count() == -1 && tar_feof() == 1, "nothing is left of a closed archive");
}
