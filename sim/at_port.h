// The AT command interpreter behind one of the modem's text ports. Each port has its own echo setting and line.
#pragma once

#include "faults.h"

namespace sim {

class AtPort {
public:
    AtPort(std::string port, std::string revision, Faults& faults, const Journal& journal)
        : port_(std::move(port)), revision_(std::move(revision)), faults_(faults), journal_(journal)
    {
    }

    [[nodiscard]] Delivery take(View input);

private:
    [[nodiscard]] Delivery end_of_line();
    [[nodiscard]] std::string obey(const std::string& command);

    std::string port_;
    std::string revision_;
    Faults& faults_;
    const Journal& journal_;
    std::string line_;
    bool echo_ = true;
    bool text_expected_ = false; // after the ">" prompt
};

} // namespace sim
