// A status line for a person who waits at a terminal: on standard error, redrawn in place, with how much is done, the
// rate and the time left. Where standard error is no terminal nothing is ever written; no log line changes.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

enum class ProgressUnit { bytes, pieces };

// Shows the progress of one job while it lives, and takes the line away in the end. Jobs do not nest. Main thread.
class Progress {
public:
    // `what`: names the job for the person. `total`: of bytes or pieces; 0 shows nothing.
    Progress(std::string what, uint64_t total, ProgressUnit unit);
    Progress(const Progress&) = delete;
    Progress(Progress&&) = delete;
    Progress& operator=(const Progress&) = delete;
    Progress& operator=(Progress&&) = delete;
    ~Progress();

    // `done` of the total are done. Draws a few times a second at most.
    void advance_to(uint64_t done);

private:
    using Clock = std::chrono::steady_clock;

    std::string what_;
    uint64_t total_;
    ProgressUnit unit_;
    bool shown_; // there is a terminal
    Clock::time_point start_ = Clock::now();
    Clock::time_point next_ = start_; // when it is drawn again
};

// Takes the line away before something else is written to the terminal; it comes back by itself. Keeps errno. Any
// thread.
void hide_progress();

// The line's text: "WHAT: DONE of TOTAL, RATE, TIME left".
std::string progress_text(const std::string& what, uint64_t done, uint64_t total, ProgressUnit unit, double seconds);
