// The modem's EFS2 file system: the tree below modem/efs/, to look at, to edit and to compare; every request reads it
// anew. A plain file of the tree is an item file below /nv/item_files and a regular file elsewhere. The exceptions
// stand at the top of the tree in `.types`, sorted, one a line:
//   item /sd/rat_acq_order
//   regular /nv/item_files/rfnv/00020090
// The modem keeps this list and never shows it. No path leads out of the tree: ".." at the top stays at the top, and
// symbolic links, absolute ones too, are followed inside it.
#pragma once

#include "os.h"

#include <map>
#include <optional>
#include <stdexcept>

namespace sim {

// The bits of a mode that tell what it is the mode of.
enum class EfsType : uint32_t { directory = 0x4000, regular = 0x8000, link = 0xA000, item = 0xE000 };

enum EfsError : uint32_t {
    efs_no_entry = 2,
    efs_exists = 6,
    efs_bad_descriptor = 9,
    efs_not_directory = 20,
    efs_is_directory = 21,
    efs_invalid = 22,
    efs_no_space = 28,
    efs_out_of_range = 34,
    efs_name_too_long = 36,
    efs_too_many_links = 40,
    efs_not_item_file = 303,
    efs_invalid_sequence = 0x40000002,
    efs_directory_not_open = 0x40000003,
    efs_invalid_path = 0x40000005,
    efs_path_too_long = 0x40000006,
    efs_too_many_directories = 0x40000007,
    efs_too_many_files = 0x40000009,
    efs_unknown_type = 0x4000000A,
};

// Thrown by what the modem answers with an error number.
struct EfsFailure : std::runtime_error {
    explicit EfsFailure(EfsError error) : std::runtime_error("EFS error " + std::to_string(error)), number(error) {}

    EfsError number;
};

// Of opening a file; the last one, of putting one: what is put is an item file.
enum EfsFlag : uint32_t {
    efs_read_only = 0,
    efs_write_only = 1,
    efs_read_write = 2,
    efs_access = 3,
    efs_create = 0x40,
    efs_truncate = 0x200,
    efs_item_file = 0x80000,
};

class EfsStore {
public:
    static constexpr size_t longest_path = 1024, longest_name = 128, most_links = 8;
    static constexpr uint32_t longest_file = 0x400000;

    struct Status {
        EfsType type;
        uint32_t size; // 0 of a directory, of a link the length of its target

        [[nodiscard]] uint32_t mode() const;
    };
    struct Entry {
        std::string name;
        Status status;
    };

    explicit EfsStore(fs::path tree) : tree_(std::move(tree)) {}

    // Puts a copy of the tree `from` in the place of this one, or a small standard tree. Throws UsageError.
    void load(const std::optional<fs::path>& from) const;
    // Takes away all files.
    void clear() const;

    // A path begins at the top, also without a slash. All of these throw EfsFailure, and std::system_error where this
    // machine fails. A link that a path ends in is followed, except by `remove`.
    [[nodiscard]] Status status(std::string_view path) const;
    [[nodiscard]] std::vector<Entry> list(std::string_view path) const;
    [[nodiscard]] Fd open(std::string_view path, uint32_t flags) const;
    void remove(std::string_view path) const;
    // The first bytes of an item file.
    [[nodiscard]] Bytes get(std::string_view path, size_t most) const;
    // Replaces a whole file. Where there is none it is made, with the directories on the way to it.
    void put(std::string_view path, View data, uint32_t flags) const;

private:
    using Types = std::map<std::string, EfsType>; // by path

    // What a path leads to.
    struct Place {
        std::string path; // in the modem's file system, without links
        fs::path host;
        std::optional<Status> status; // nothing: not there
    };

    [[nodiscard]] Place resolve(std::string_view path, bool follow_last = true, bool make_directories = false) const;
    [[nodiscard]] Place existing_file(std::string_view path, bool follow_last = true) const;
    [[nodiscard]] Place place_of(const std::vector<std::string>& names) const;
    [[nodiscard]] Types exceptions() const;
    // Nothing: there is no such file any more.
    void set_type(const std::string& path, std::optional<EfsType> type) const;

    fs::path tree_;
};

} // namespace sim
