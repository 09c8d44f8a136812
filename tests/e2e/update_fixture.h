// Firmware packages on a virtual tablet, and what an update made of the modem's flash.
#pragma once

#include "tests/e2e/tablet_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

class UpdateOnTablet : public OnPoweredTablet {
protected:
    // Puts a firmware package into /sdcard/firmware, made with `options` of the package script.
    void package(const std::string& options = "")
    {
        const std::filesystem::path folder = root() + "/sdcard/firmware";
        std::filesystem::create_directories(folder);
        const std::string command =
            std::string(MAKE_PACKAGE_SCRIPT) + " --keep " + options + " '" + folder.string() + "' >/dev/null";
        ASSERT_EQ(std::system(command.c_str()), 0) << command; // NOLINT(concurrency-mt-unsafe): one thread a case
        // The tablet has only the package; what is in it is for the case to compare.
        std::filesystem::rename(folder / "members", members_folder());
    }

    // Adds a member to the package in /sdcard/firmware.
    void add_to_package(const std::string& name, const std::string& bytes)
    {
        write_file("/../members/" + name, bytes);
        const std::string command = "tar --format=ustar -C '" + members_folder().string() + "' -rf '" + root() +
                                    "/sdcard/firmware/fwupdate.tar' " + name;
        ASSERT_EQ(std::system(command.c_str()), 0) << command; // NOLINT(concurrency-mt-unsafe): one thread a case
    }

    // The modem has the package's partition table already.
    void give_table_of_package() const { write_file("/modem/flash/mibib", member("partition.mbn")); }

    // A file of the package.
    [[nodiscard]] std::string member(const std::string& name) const { return read_file("/../members/" + name); }

    // What is in the modem's flash, by partition.
    [[nodiscard]] Files flash() const { return files_in("/modem/flash"); }

    // Which partition a member of the package goes to.
    using Places = std::map<std::string, std::string>;

    // `before` with the members of the package where they belong.
    [[nodiscard]] Files with_members(const Places& places, Files before) const
    {
        for (const auto& [partition, name] : places)
            before[partition] = member(name);
        return before;
    }

    // Files that are not the same in both. Images are too long to be shown.
    static Texts differences(const Files& one, const Files& other)
    {
        Texts names;
        for (const auto& [name, bytes] : one)
            if (!other.contains(name) || other.at(name) != bytes)
                names.push_back(name);
        for (const auto& [name, bytes] : other)
            if (!one.contains(name))
                names.push_back(name);
        return names;
    }

    void remember()
    {
        flash_before = flash();
        nv = all_in("nv");
        efs = all_in("efs");
    }

    // Since then the modem's flash has changed where it has been written, and its NV data have not.
    void expect_written(const Places& written) const
    {
        EXPECT_THAT(differences(flash(), with_members(written, flash_before)), ::testing::IsEmpty());
        EXPECT_THAT(differences(all_in("nv"), nv), ::testing::IsEmpty());
        EXPECT_THAT(differences(all_in("efs"), efs), ::testing::IsEmpty());
    }

    Files flash_before, nv, efs;

    // Names of files in /data, where backups of NV data stand.
    [[nodiscard]] Texts data() const
    {
        Texts names;
        for (const auto& [name, bytes] : files_in("/data"))
            names.push_back(name);
        return names;
    }

    // The records that are among `texts`, in their order.
    static Texts those_of(const Texts& texts, Texts records)
    {
        std::erase_if(records, [&](const std::string& text) { return std::ranges::find(texts, text) == texts.end(); });
        return records;
    }

    // The headlines of a run, in order.
    static Texts headlines(const Result& result)
    {
        Texts texts = result.records();
        std::erase_if(texts, [](const std::string& text) { return !text.starts_with("I >>>"); });
        return texts;
    }

    // Warnings and errors of a run, in order.
    static Texts complaints_of(const Result& result)
    {
        Texts texts = result.records();
        std::erase_if(texts, [](const std::string& text) { return text.starts_with("I ") || text.starts_with("D "); });
        return texts;
    }

    // The same without those of a run that goes well: downloaders of other chips that the package does not have, a
    // modem that resets while its port is open, and files that a restore makes.
    static Texts remarks(const Result& result)
    {
        Texts texts = complaints_of(result);
        std::erase_if(texts, [](const std::string& text) {
            return text.starts_with("W Not found file: NPRG") || text.find(" pktio.c:") != std::string::npos ||
                   text == "E No such file or directory";
        });
        return texts;
    }

private:
    [[nodiscard]] std::filesystem::path members_folder() const { return root() + "/../members"; }
};
