#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace maintenance::kit {

/// Returns `text` so that it can stand on one line of a terminal whatever it holds: ASCII stays, "\", tab,
/// line feed and carriage return are written as escapes, every other byte as "\xNN". Of a text of more than
/// `longest` bytes the first ones and the length are given.
std::string printable(std::string_view text, std::size_t longest = 200);

/// Returns a count of bytes for people, such as "812 bytes", "1.4 MB".
std::string byteCount(std::uint64_t bytes);

/// Returns a number and a noun: "1 file", "2 files".
std::string counted(std::size_t count, const std::string& noun);

/// Returns `mode`'s permission bits as four octal digits.
std::string octalMode(unsigned mode);

/// Returns a word so that a shell takes it as one word.
std::string shellQuoted(const std::string& word);

} // namespace maintenance::kit
