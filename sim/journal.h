// modem/journal.txt: what the modem saw and did, one line an event, in order, each on disk before the modem goes on.
//   request PORT LENGTH: HEX...   state NAME   fault WORD@N   complaint: TEXT
#pragma once

#include "os.h"

namespace sim {

class Journal {
public:
    explicit Journal(const fs::path& path);

    void request(std::string_view port, View packet) const;
    void note(std::string text) const;
    // The host sent what a strict modem refuses.
    void complain(const std::string& text) const;

private:
    Fd file_;
};

} // namespace sim
