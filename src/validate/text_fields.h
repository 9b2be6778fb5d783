#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace maintenance {

/// Splits `text` at every `separator`; empty pieces are kept, so "a,,b," gives "a", "", "b", "" and an
/// empty text gives one empty piece.
std::vector<std::string> split(std::string_view text, char separator);

/// Takes `text` apart at every `separator` as `split` does, where that gives exactly `Count` pieces; nothing
/// otherwise. The pieces borrow from `text`.
template <std::size_t Count>
std::optional<std::array<std::string_view, Count>> splitExactly(std::string_view text, char separator)
{
    std::array<std::string_view, Count> pieces;
    for (std::size_t i = 0; i < Count; ++i) {
        const std::size_t end = text.find(separator);
        pieces[i] = text.substr(0, end);
        const bool last = i + 1 == Count;
        if ((end == std::string_view::npos) != last)
            return std::nullopt;
        text.remove_prefix(last ? text.size() : end + 1);
    }
    return pieces;
}

/// Returns the lines of `text`, without their line feeds. A last line without a line feed is a line; a text
/// that ends in a line feed has no further empty line, and an empty text has no line. The views borrow
/// from `text`.
std::vector<std::string_view> splitLines(std::string_view text);

/// A line of metadata: what stands before its first "=", and everything behind it. Borrows from the line.
struct KeyValue {
    std::string_view key;
    std::string_view value;
};

/// Takes `line` apart at its first "="; nothing when it has none.
std::optional<KeyValue> splitKeyValue(std::string_view line);

/// Takes a line of a plan or descriptor apart, which has 1 to 8192 bytes and an "=".
/// Throws Invalid subject + " contains an invalid line" or subject + " contains an invalid field".
KeyValue requireFieldLine(std::string_view line, std::string_view subject);

} // namespace maintenance
