// One run of the firmware update on a tablet of its own: a row of a table of cases, and what runs say, piece by piece.
#pragma once

#include "tests/e2e/scenario.h"
#include "tests/e2e/update_fixture.h"

#include <algorithm>
#include <ostream>

struct UpdateCase {
    std::string name;
    std::string modem = {};         // its options, beside versions that are older than the package's firmware
    std::string package = {};       // options of the package script, beside those versions
    std::string before = {};        // a command of the tablet's shell
    std::string options = "-m all"; // of the run
    int status = 0;
    Texts records = {};       // headlines, warnings and errors, all of them; and what else is of interest, in between
    std::string changed = {}; // the partitions that are as the package says now, "-NAME" when it is gone
    Texts complaints = {};    // of the modem
};

inline void PrintTo(const UpdateCase& row, std::ostream* out)
{
    *out << row.options;
}

const std::string tar = "/sdcard/firmware/fwupdate.tar";

class UpdateExits : public UpdateOnTablet, public ::testing::WithParamInterface<UpdateCase> {
protected:
    // Headlines, warnings, errors and whatever else is expected. Not the times of files, and not that a resetting modem
    // takes its port away before that is closed, which is a matter of luck.
    static Texts said(const Result& result, const Texts& expected)
    {
        Texts texts;
        for (std::string text : result.records()) {
            if (text.find("time of ") != std::string::npos)
                text.resize(text.rfind('=') + 1);
            const bool is_luck = text.find(" pktio.c:") != std::string::npos;
            const bool is_loud = text.starts_with("I >>>") || text.starts_with("W ") || text.starts_with("E ");
            if ((is_loud && !is_luck) || std::ranges::find(expected, text) != expected.end())
                texts.push_back(text);
        }
        return texts;
    }

    // Names of partitions that are not as before; "?NAME": it holds something else than the package's image.
    [[nodiscard]] std::string changed_since(const Files& before) const
    {
        const std::string unpacked = root() + "/../unpacked";
        std::filesystem::create_directory(unpacked);
        const std::string command = "tar -xf '" + root() + tar + "' -C '" + unpacked + "' 2>/dev/null";
        (void)std::system(command.c_str()); // NOLINT(concurrency-mt-unsafe): one thread; what is damaged stays away
        Files now = flash(), images = files_in("/../unpacked");
        constexpr size_t largest_table = 512;
        images["mibib.mbn"] = images["partition.mbn"].substr(0, largest_table);
        images["aboot.mbn"] = images["appsboot.mbn"];
        images["boot.mbn"] = images["boot.img"] + images["boot-oe-msm9615.img"]; // there is one of them
        images["system.mbn"] = images["9615-cdp-image-9615-cdp.yaffs2"];
        images["userdata.mbn"] = images["9615-cdp-usr-image.usrfs.yaffs2"];
        std::string changed;
        for (const auto& [name, bytes] : before) {
            if (!now.contains(name))
                changed.append(" -").append(name);
            else if (now[name] != bytes)
                changed.append(now[name] == images[name + ".mbn"] ? " " : " ?").append(name);
        }
        EXPECT_LE(now.size(), before.size());
        return changed.substr(std::min<size_t>(1, changed.size()));
    }
};

// The package, unpacked, changed by a command, and packed again.
inline std::string edited(const std::string& command)
{
    return "cd /tmp && tar -xf " + tar + " && { " + command + "; } && tar --format=ustar -cf " + tar + " *";
}

// A flash programmer of these lines.
inline std::string programmer(const Texts& lines)
{
    std::string command = "printf '%s\\n'";
    for (const std::string& line : lines)
        command += " '" + line + "'";
    return edited(command + " > NPRG9x15.hex");
}

// ---- what a run says, piece by piece ----

inline Texts operator+(Texts texts, const char* text)
{
    texts.emplace_back(text);
    return texts;
}

const Texts stage1 = {"I >>> STAGE1: Verify image files to be updated ..."};
const Texts verified = stage1 + Texts{"W Not found file: NPRG6270.hex", "W Not found file: NPRG9x00.hex"};
const Texts same_firmware = {"W modem FW version is RIDGE_02_05_07, there is no need to update"};
const Texts same_apps = {"W modem apps FW version is APPS_1, there is no need to update"};
const Texts erasing = {"I >>> Verify if needing to erase all partitions ..."};
const Texts not_erased = {"W    No need to erase all partitions!"};
const Texts stage2 = {"I >>> STAGE2: Backup NV items ..."};
const Texts stage3 = {"I >>> STAGE3: Update MODEM images ..."};
const Texts stage4 = {"I >>> STAGE4: Update LINUX images ..."};
const Texts stage5 = {"I >>> STAGE5: Restore NV items ..."};
const Texts stage6 = {"I >>> STAGE6: Update the given NV items ..."};
const Texts exiting = {"I >>> Exiting..."};
const Texts ended = Texts{"I >>> STAGE7: Completed!"} + exiting;
const Texts finished = stage6 + ended;
const Texts written = {"I STAGE3: Writing Start"};
const Texts time_out = {"E Timeout!"};
const std::string not_listed = "E tar_init was not called";
const Texts invalid_package = Texts{"E Invalid firmware package"} + exiting;
const Texts bad_programmer = Texts{"E Error in the Downloader???"} + exiting;
const Texts bad_table = Texts{"E Unknown partition table response status"} + exiting;
const Texts no_table = Texts{"E Unable to open partition file /sdcard/firmware/partition.mbn"} + bad_table;
const Texts never_came_back = {"E Serial device file /dev/ttyUSB0 has not been re-enumerated",
                               "E ctime of /dev/ttyUSB0 =", "E atime of /dev/ttyUSB0 =", "E mtime of /dev/ttyUSB0 ="};

constexpr const char* too_old =
    "W Don't allow downgrading modem firmware version to RIDGE_02_05_06 (older than 02_05_07)!";

// Up to the way into download mode, with a package that lacks some files.
inline Texts decided(const Texts& missing_files = {})
{
    Texts texts = verified;
    for (const std::string& file : missing_files)
        texts.push_back("W Not found file: " + file);
    return texts + same_apps + erasing + not_erased;
}

// Up to the modem images.
inline Texts started(const Texts& missing_files = {})
{
    return decided(missing_files) + stage2 + stage3;
}

// Up to the Linux images, where only those were asked for, and the two ways that are tried then.
const Texts linux_alone = stage1 + erasing + not_erased + stage2 + "I Skip updating MODEM images" + stage4;
const Texts not_by_diag = {"W Current modem FW doesn't support switching to fastboot mode by DIAG command"};
const Texts no_device = {"W Wait for device: timeout"};

// A request that wanted this reply and got an error.
inline Texts refused(const std::string& code_of_reply)
{
    return {"W Expected rsp: 0x" + code_of_reply + ", received: 0x0d ", "E Timeout!"};
}

inline Texts not_unpacked(const std::string& partition)
{
    return {"E Failed to open file /data/tmp.bin", "E Failed to find the file " + partition + ".img",
            "W Failed to fetch partition " + partition + "'s image file"};
}
