// Backup files as they may be found, walked through and restored; and a modem that replies as it likes while it is
// backed up, or a file of it is shown.
#include "wan_dloader/nv_backup.h"

#include "diag/exchange.h"
#include "diag/packet_fields.h"
#include "tests/fuzz/modem.h"
#include "wan_dloader/nv_copies.h"
#include "wan_dloader/nv_file.h"
#include "wan_dloader/nv_restore.h"
#include "wan_dloader/nv_tables.h"
#include "wan_dloader/nv_update.h"
#include "wan_dloader/run_settings.h"

#include <array>
#include <utility>

namespace {

constexpr const char* backup_path = "/data/nvbackup.bin";

// In order for some requests.
Modem modem_that_becomes_faulty(Input& input)
{
    constexpr uint16_t most = 512;
    return [in_order = input.u16() % most, faulty = faulty_modem(input)](std::span<const uint8_t> request) mutable {
        return in_order != 0 && in_order-- != 0 ? std::optional(proper_answer(request)) : faulty(request);
    };
}

struct Restored {
    uint64_t items, item_files, efs_files;
};

// Restores the backup file to a modem that takes everything, and counts what it is sent.
Restored restore()
{
    constexpr uint8_t file_system = 0x13;
    constexpr uint16_t open_command = 2, put_command = 38;
    Restored restored{};
    connect(prv_handle_packet, [&](std::span<const uint8_t> request) {
        const bool is_file = get_u8(request, 0) == 0x4B && get_u8(request, 1) == file_system;
        if (get_u8(request, 0) == nv_packet::write_code)
            ++restored.items;
        else if (is_file && get_le16(request, 2) == put_command)
            ++restored.item_files;
        else if (is_file && get_le16(request, 2) == open_command)
            ++restored.efs_files;
        return std::optional(proper_answer(request));
    });
    sFlashAllPartitions = 1;
    require(RestoreQCN("/dev/null") == 0, "a restore goes to its end");
    return restored;
}

// Whether the file ends where its three chunks do.
void check_form(const Bytes& backup)
{
    size_t at = nv_file_header::size;
    require(get_le32(backup, nv_file_header::chunks_at) == 3, "a backup has three chunks");
    for (int chunk = 0; chunk < 3; ++chunk) {
        const auto header = std::span(backup).subspan(at);
        require(get_le32(header, nv_chunk_header::tag_at) == nv_chunk_header::nv_items + static_cast<uint32_t>(chunk),
                "chunks are in order");
        at += nv_chunk_header::size + get_le32(header, nv_chunk_header::size_at);
        require(at <= backup.size(), "a chunk is in the file");
    }
    require(at == backup.size(), "a backup ends with its last chunk");
}

void walk(const Bytes& bytes)
{
    add_file(backup_path, bytes);
    const NvFileContents contents = nv_file_contents(backup_path);
    NVItemBackupVerify(backup_path);
    require(contents.filled_items <= contents.items, "a filled item is an item");
    require(contents.items * nv_item_record::size + contents.item_file_bytes + contents.efs_file_bytes <= bytes.size(),
            "a file holds no more than its bytes");
    require(!contents.holds_less_than(contents), "a file holds as much as itself");

    const Restored restored = restore();
    if (!contents.whole)
        return;
    check_form(bytes);
    // A file that fits no request is refused before it is sent.
    constexpr size_t longest_request = 2048;
    require(restored.items == contents.items, "all items of a whole backup are restored");
    require(restored.item_files <= contents.item_files && restored.efs_files <= contents.efs_files,
            "every file is sent once");
    require(bytes.size() > longest_request ||
                (restored.item_files == contents.item_files && restored.efs_files == contents.efs_files),
            "all files of a whole backup are restored");
}

void back_up(std::span<int32_t (*const)(const std::string&)> passes)
{
    ExitOnTimeout = 1;
    for (const auto pass : passes)
        require(pass(backup_path) == 0, "a pass that can write is through");
    const Bytes backup = file_contents(backup_path);
    check_form(backup);
    walk(backup);
}

void back_up_all(Input& input)
{
    add_file(backup_path, {});
    connect(prv_handle_packet, faulty_modem(input));
    back_up(std::array{NvItemBackup, NvItemFileBackup, EfsFileBackup});
}

// The many items before are left out, so that faults get to the last file.
void back_up_files(Input& input)
{
    Bytes empty(nv_file_header::size + nv_chunk_header::size);
    put_le32(empty, nv_file_header::magic_1_at, nv_file_header::magic_1);
    put_le32(empty, nv_file_header::magic_2_at, nv_file_header::magic_2);
    put_le32(empty, nv_file_header::chunks_at, 1);
    put_le32(empty, nv_file_header::size + nv_chunk_header::tag_at, nv_chunk_header::nv_items);
    add_file(backup_path, empty);
    connect(prv_handle_packet, modem_that_becomes_faulty(input));
    back_up(std::array{NvItemFileBackup, EfsFileBackup});
}

void restore_to_faulty(Input& input)
{
    add_file(backup_path, input.piece());
    connect(prv_handle_packet, modem_that_becomes_faulty(input));
    sFlashAllPartitions = 1;
    require(RestoreQCN("/dev/null") == 0, "a restore goes to its end");
    const uint32_t unrestored = nv_values_unrestored();
    (void)restore();
    require(nv_values_unrestored() <= unrestored, "a modem in order takes as much as one that is not");
}

// A single file of the modem, shown and deleted.
void show(Input& input)
{
    const std::string path = input.text();
    connect(prv_handle_packet, faulty_modem(input));
    require(ReadNVF(path, "/dev/null") <= 1, "a file is shown or not");
    (void)DeleteEFS2F(path, "/dev/null");
}

} // namespace

void fuzz_one(Input& input)
{
    constexpr uint8_t backing_up_all = 0, showing = 1, backing_up_files = 3, restoring = 5;
    for (const NvFileRow& row : EFSFileList)
        add_regular_file(row.path);
    switch (input.u8() % 8) {
    case backing_up_all:
        return back_up_all(input);
    case backing_up_files:
        return back_up_files(input);
    case restoring:
        return restore_to_faulty(input);
    case showing:
        return show(input);
    default:
        return walk(input.rest());
    }
}
