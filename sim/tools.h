// The tools of the tablet: insmod, rmmod, start, stop, chown, chmod, fastboot, adb. In the tablet they are links to
// this program, which hands what it is called with over a socket to the process that plays the tablet and does as it
// says.
#pragma once

#include "modem_tools.h"

namespace sim {

[[nodiscard]] std::vector<std::string> tool_names();
// In the tablet: the call of a tool, its name first; its exit status.
[[nodiscard]] int call_tool(std::vector<std::string> words);

// Calls that fail on demand: all of a tool, or those with an argument that is this word or a file of this name.
struct ToolFailure {
    std::string tool;
    std::string word; // empty: any

    // TOOL[:WORD]. Throws UsageError.
    [[nodiscard]] static ToolFailure parse(std::string_view given);
};

class Tools {
public:
    Tools(const fs::path& root, std::vector<ToolFailure> failures, const Modules& modules, Modem& modem,
          const Journal& journal);

    // What to wait for; then `serve` answers whoever has called, without waiting.
    void watch(std::vector<pollfd>& watched) const;
    void serve();

private:
    using Words = std::vector<std::string>;

    // A tool that runs. It is told either its end, or to run the real tool first and to say how that ended.
    struct Call {
        Fd line;
        Words waiting; // for the end of the real tool
        bool over = false;
    };

    void answer(Call& call);
    [[nodiscard]] ToolOutcome play(const Words& words, const Fd& file);
    void end(Call& call, const Words& words, const ToolOutcome& outcome) const;

    Fd listener_;
    std::vector<ToolFailure> failures_;
    const Modules& modules_;
    Modem& modem_;
    const Journal& journal_;
    std::vector<Call> calls_;
};

} // namespace sim
