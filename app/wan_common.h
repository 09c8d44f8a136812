// Small helpers that all applets share.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// The part of `path` behind its last "/", the whole text when there is none. Null when the text is null or holds 128
// characters or more.
[[nodiscard]] const char* get_filename(const char* path);

// Prints `bytes` on standard output, "0x%02x" each, 16 to a line, and an empty line after the last.
void PrintHex(std::span<const uint8_t> bytes);

// Switches the console copy of the applet log on (1) or off (0).
void tessel_stdout_on_off(int32_t value);

// The decimal number at the start of `text`, as atoi() reads it, but held at the ends of its range instead of
// overflowing. 0 where there is none.
[[nodiscard]] int32_t text_to_int(const std::string& text);

// Takes the next token off `rest`: the longest run without a character of `delimiters`, those before it skipped. Empty
// when none is left.
[[nodiscard]] std::string_view next_token(std::string_view& rest, std::string_view delimiters);

// ---- lines of text files ----

// `text` without the blanks and tabs it begins with; empty when nothing is left.
[[nodiscard]] std::string_view trim_buf(std::string_view text);

// `text` without the CR and LF characters it ends with.
[[nodiscard]] std::string_view trim_tail(std::string_view text);

// Whether `text`, from trim_buf, is a comment or nothing.
[[nodiscard]] bool is_comment_line(std::string_view text);

// Value of a hex digit, -1 for any other character.
[[nodiscard]] int32_t hex2int(char digit);
