// Runs the real binary on a virtual tablet of the case's own; cases may run side by side.
//
//   TEST_F(OnTablet, ReportsTheModemsError)
//   {
//       modem("normal --fault at-error@2");
//       EXPECT_EQ(run("tessel atcmd -c ATX").status, 103);
//   }
//
// Every case fails, without asking for it, on an ERROR record or a complaint of the modem that it did not look at, a
// sanitizer report, a command that runs for 100 s, and a process or a folder that stays behind. Where sandboxes are
// impossible it is skipped with the remedy, or fails when the environment says CI=true.
#pragma once

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

using Texts = std::vector<std::string>;

// What a command left behind.
struct Result {
    int status = -1; // exit status; -1 when a signal ended it
    std::string out; // standard output
    std::string err; // standard error: log records and whatever else was printed there
    Texts log;       // the log records, whole lines: "radio D RIL_TESSEL: stdout is on"

    // The texts of the ERROR records. Whoever looks at them answers for them.
    [[nodiscard]] const Texts& errors() const
    {
        *errors_seen = true;
        return error_texts;
    }
    // All records, "I text" each, of which the same holds.
    [[nodiscard]] Texts records() const;

    Texts error_texts;
    std::shared_ptr<bool> errors_seen = std::make_shared<bool>(false);
};

class OnTablet : public ::testing::Test {
protected:
    using Files = std::map<std::string, std::string>; // name -> bytes

    // A command that runs beside the case.
    struct Job {
        pid_t pid = -1;
        std::string command;
        std::filesystem::path out, err;
    };

    // Boots the tablet and attaches a modem, before the first command. `words` are split at blanks, the modem's state
    // first ("crashed --protocol 7"); `more` holds words with blanks of their own.
    void modem(const std::string& words, const Texts& more = {});

    // Takes the modem away, with all its nodes; its data stay for the next modem.
    void remove_modem();

    // Runs a command line of the tablet's shell to its end. Standard input is empty, output of any size is kept.
    Result run(const std::string& command) { return finish(start(command)); }

    // The same in two steps; every job is finished before the case ends.
    [[nodiscard]] Job start(const std::string& command);
    Result finish(const Job& job);

    // The tablet's / as the case sees it.
    [[nodiscard]] std::string root() const { return folder_ / "tablet"; }

    // Contents of a file of the tablet, such as "/sdcard/list". The case fails, and gets "", when there is none.
    [[nodiscard]] std::string read_file(const std::string& path) const;

    // Puts a file into the tablet in the place of whatever is there, with the folders above it.
    void write_file(const std::string& path, const std::string& bytes) const;

    // All regular files directly in a folder of the tablet; none when there is no such folder.
    [[nodiscard]] Files files_in(const std::string& path) const;

    // All regular files below a folder of the modem, such as "nv" or "efs", by their paths there.
    [[nodiscard]] Files all_in(const std::string& folder) const;

    // The memory regions that the crashed modem offers.
    [[nodiscard]] Files regions_of_modem() const { return files_in("/modem/memory"); }

    // What the modem saw and did so far, one line an event.
    [[nodiscard]] Texts journal() const;

    // What it was asked on the DIAG port, each as its length and the bytes it begins with.
    [[nodiscard]] Texts requests() const;

    // What was done to the tablet since the last call: writes to driver files, ioctls, and programs that ran, in order.
    [[nodiscard]] Texts actions();

    // Waits until the journal holds `text` `count` times; the case fails when that takes more than 30 s.
    void wait_for_journal(const std::string& text, size_t count = 1) const;

    // What the modem found wrong with the requests so far. Looked at, it is expected.
    [[nodiscard]] Texts complaints();

    void SetUp() override;
    void TearDown() override;

    // What this machine lacks for a whole tablet, with the remedy; empty when it lacks nothing.
    [[nodiscard]] const std::string& obstacle() const { return obstacle_; }
    static void skip(const std::string& obstacle);

private:
    [[nodiscard]] std::filesystem::path new_file() { return folder_ / std::to_string(files_++); }

    std::string obstacle_;
    std::filesystem::path folder_; // holds the tablet, and what commands print
    int files_ = 0;
    pid_t modem_ = -1;
    int modem_stdin_ = -1; // the modem ends when this closes, however the case ends
    std::filesystem::path modem_out_, modem_err_;
    std::set<pid_t> running_;
    std::vector<Result> finished_;
    bool complaints_seen_ = false;
    size_t actions_seen_ = 0;
};

// Where the machine cannot make a tablet with power files, these cases are skipped in the same way.
class OnPoweredTablet : public OnTablet {
protected:
    void SetUp() override;
};
