// Firmware packages on a virtual tablet, and what an update made of the modem's flash.
#pragma once

#include "tests/e2e/tablet_fixture.h"

#include <cstdlib>

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

    // A file of the package.
    [[nodiscard]] std::string member(const std::string& name) const { return read_file("/../members/" + name); }

    // What is in the modem's flash, by partition.
    [[nodiscard]] Files flash() const { return files_in("/modem/flash"); }

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

private:
    [[nodiscard]] std::filesystem::path members_folder() const { return root() + "/../members"; }
};
