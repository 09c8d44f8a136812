// The crash dump applet with a modem on a tty: what it said and what it asked the modem for.
#pragma once

#include "tests/e2e/tablet_fixture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

inline const std::string timed_out = "E Timeout!";
inline const std::string no_answer = "E Doesn't receive DIAG response";
inline const std::string bad_frame = "W pktio.c:164 hdlcdec:status=3:bad HDLC decode";
inline const std::string unplugged = "E port gone";

inline const std::string noise = " --fault noise@1+ --fault stray@1+ --fault pair@1+ --fault empty@1+";

inline std::string times(size_t count, const std::string& text)
{
    std::string all;
    while (count-- > 0)
        all += text;
    return all;
}

inline std::string replaced(std::string text, const std::string& old, const std::string& fresh)
{
    for (size_t at = 0; (at = text.find(old, at)) != std::string::npos; at += fresh.size())
        text.replace(at, old.size(), fresh);
    return text;
}

// How bytes from the modem are shown.
inline std::string received(const std::string& hex)
{
    return "<<<<<<<<<< RX <<<<<<<<<<<\n" + hex + "\n\n<<<<<<<<<< end of RX <<<<<<<<\n";
}

class Crashdump : public OnTablet {
protected:
    // The log in order, a record as "I text", without the line that every run with a port begins with. How the reader
    // finds the port gone, and whether the main thread finds the reader gone, is a matter of chance.
    static Texts said(const Result& result)
    {
        Texts texts;
        for (const std::string& text : result.records()) {
            if (text.starts_with("E pktio.c:127 read:errno=5:") || text.starts_with("E pktio.c:173 eof::EOF"))
                texts.push_back(unplugged);
            else if (text != "I Opening port: /dev/ttyUSB0" && !text.starts_with("W pktio.c:306 "))
                texts.push_back(text);
        }
        return texts;
    }

    // What the modem was asked for, each as its length and its first six bytes.
    [[nodiscard]] Texts requests() const
    {
        Texts texts = OnTablet::requests();
        for (std::string& text : texts)
            text.resize(std::min(text.size(), text.find(": ") + 2 + 17));
        return texts;
    }

    // Puts a file into the tablet, with `size` bytes that differ from those a block away.
    std::string make_file(const std::string& path, size_t size) const
    {
        std::string bytes;
        for (uint32_t i = 0; i < size; ++i)
            bytes += static_cast<char>((i * 2654435761U) >> 24);
        std::ofstream(root() + path, std::ios::binary) << bytes;
        return bytes;
    }

    [[nodiscard]] Texts names_in(const std::string& path) const
    {
        Texts names;
        for (const auto& found : std::filesystem::directory_iterator(root() + path))
            names.push_back(found.path().filename());
        return names;
    }
};
