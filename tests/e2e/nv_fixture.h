// A virtual modem's NV data, backup files written by hand, and operations of wan_dloader that follow each other.
#pragma once

#include "platform/os.h"
#include "tests/e2e/tablet_fixture.h"
#include "wan_dloader/nv_tables.h"

#include <algorithm>
#include <fstream>
#include <string_view>

// ---- a backup file, written by hand ----

inline std::string le16(size_t number)
{
    return {static_cast<char>(number & 0xFF), static_cast<char>(number >> 8 & 0xFF)};
}

inline std::string le32(size_t number)
{
    return le16(number & 0xFFFF) + le16(number >> 16 & 0xFFFF);
}

inline std::string nv_record(uint16_t item, std::string data)
{
    data.resize(128);
    return le16(item) + data;
}

// `length` is what the record says of its data.
inline std::string file_record(const std::string& path, const std::string& data, size_t length)
{
    return le16(path.size() + 1) + path + '\0' + le16(length) + data;
}

inline std::string file_record(const std::string& path, const std::string& data)
{
    return file_record(path, data, data.size());
}

enum ChunkTag : uint32_t { nv_items = 0x42504100, nv_item_files = 0x42504101, efs_files = 0x42504102 };

struct HandMadeChunk {
    ChunkTag tag;
    Texts records;
};

inline std::string backup_file(const std::vector<HandMadeChunk>& chunks)
{
    std::string bytes = le32(0x4E560001) + "PUKB" + le32(0x00010000) + le32(chunks.size());
    for (const auto& [tag, records] : chunks) {
        std::string all;
        for (const std::string& record : records)
            all += record;
        bytes += le32(tag) + le32(records.size()) + le32(all.size()) + all;
    }
    return bytes;
}

// Bytes of which no two pieces look alike.
inline std::string pattern(size_t size, uint32_t seed)
{
    std::string bytes;
    for (uint32_t i = 0; i < size; ++i)
        bytes += static_cast<char>(((i + seed) * 2654435761U) >> 24);
    return bytes;
}

// ---- the tablet ----

// Options of a modem that has everything that the tables name, for the tablet of `root`.
inline Texts full_modem(const std::string& root)
{
    const std::string rows = root + "/rows", folder = root + "/full";
    std::filesystem::create_directories(root);
    std::ofstream list(rows);
    for (const NvItemRow& row : NvItemList)
        list << row.item << ' ' << row.size << ' ' << row.index << '\n';
    list.close();
    EXPECT_EQ(run_shell("%s %s %s", FULL_MODEM_SCRIPT, rows.c_str(), folder.c_str()), 0);
    return {"--nv", folder + "/nv.txt", "--efs", folder + "/efs"};
}

class NvOnTablet : public OnTablet {
protected:
    // Starts an operation beside others, each with a /data of its own (with_data_in), since one of them keeps the
    // others away. All of them wait for the radio daemon to be gone, and then for ports of their own, which appear one
    // after the other: each has the modem for itself as soon as it is its turn. A `command` other than that of the
    // operation alone has its words where it says "%".
    [[nodiscard]] Job queue(const std::string& options, std::string command = "%")
    {
        const std::string words = "tessel wan_dloader -P " + turn_port(turns_++) + " " + options;
        for (size_t at = 0; (at = command.find('%', at)) != std::string::npos; at += words.size())
            command.replace(at, 1, words);
        return start(command);
    }

    // A command for `queue`: with a folder of the tablet, made here, as /data.
    [[nodiscard]] std::string with_data_in(const std::string& folder) const
    {
        std::filesystem::create_directories(root() + folder);
        return "unshare -rm sh -c 'mount --bind " + folder + " /data && exec \"$@\"' - %";
    }

    // Gives the modem to the operation that is next. Whether the modem resets in the end is told by `resets`.
    Result take_turn(const Job& job, bool resets = false)
    {
        const std::string port = root() + turn_port(turns_taken_++);
        std::filesystem::create_symlink("/dev/ttyUSB0", port);
        Result result = finish(job);
        std::filesystem::remove(port);
        if (resets) {
            EXPECT_EQ(requests().back(), "3: 29 02 00") << job.command;
            wait_for_journal("state normal", 1 + ++resets_);
        }
        return result;
    }

    // Warnings and errors, without those that tell of what a modem with few NV data does not have.
    static Texts complaints_of(const Result& result)
    {
        Texts texts = result.records();
        std::erase_if(texts, [](const std::string& text) {
            return text.starts_with("I ") || text.starts_with("D ") || text.ends_with("Variable was not active.") ||
                   text == "E No such file or directory" || text.ends_with(" not found");
        });
        return texts;
    }

    // Puts files into a folder of the modem in the place of all that was.
    void fill(const std::string& folder, const Files& files) const
    {
        const std::string top = "/modem/" + folder + "/";
        for (const auto& entry : std::filesystem::directory_iterator(root() + top))
            std::filesystem::remove_all(entry);
        put(top, files);
    }

    // Puts files into a folder, whose name ends with "/". It is made if it is not there.
    void put(const std::string& folder, const Files& files) const
    {
        std::filesystem::create_directories(root() + folder);
        for (const auto& [path, bytes] : files)
            write_file(std::string(folder).append(path), bytes);
    }

    // Names of files in /data.
    [[nodiscard]] Texts data() const
    {
        Texts names;
        for (const auto& [name, bytes] : files_in("/data"))
            names.push_back(name);
        return names;
    }

    static constexpr const char* backup = "/data/nvbackup.bin";
    static constexpr const char* golden = "/data/nvbackup_golden.bin";

private:
    static std::string turn_port(size_t turn) { return "/dev/turn" + std::to_string(turn); }

    size_t turns_ = 0, turns_taken_ = 0, resets_ = 0;
};
