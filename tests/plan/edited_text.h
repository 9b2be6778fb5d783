#pragma once

#include <stdexcept>
#include <string>

/// Changing a valid text in one place, so that a test shows what matters.
namespace maintenance::rehearsed {

/// `text` with `from`, which occurs exactly once, replaced.
inline std::string changed(std::string text, const std::string& from, const std::string& to)
{
    const std::size_t place = text.find(from);
    if (place == std::string::npos || text.find(from, place + 1) != std::string::npos)
        throw std::runtime_error("not exactly once: " + from);
    return text.replace(place, from.size(), to);
}

/// The first line of `text` that begins with `start`, with its line feed.
inline std::string lineOf(const std::string& text, const std::string& start)
{
    const std::size_t found = ("\n" + text).find("\n" + start);
    if (found == std::string::npos)
        throw std::runtime_error("no line begins with " + start);
    return text.substr(found, text.find('\n', found) + 1 - found);
}

/// `text` with the first line that begins with `start` replaced; `lines` ends with a line feed, or is empty.
inline std::string withLine(std::string text, const std::string& start, const std::string& lines)
{
    const std::size_t place = ("\n" + text).find("\n" + start);
    const std::size_t length = lineOf(text, start).size();
    return text.replace(place, length, lines);
}

inline std::string withoutLine(const std::string& text, const std::string& start)
{
    return withLine(text, start, "");
}

/// `text` with `lines` before the first line that begins with `start`.
inline std::string withLineBefore(const std::string& text, const std::string& start, const std::string& lines)
{
    return withLine(text, start, lines + lineOf(text, start));
}

/// `text` with `lines` after the first line that begins with `start`.
inline std::string withLineAfter(const std::string& text, const std::string& start, const std::string& lines)
{
    return withLine(text, start, lineOf(text, start) + lines);
}

/// `text` with the first lines that begin with `one` and with `other` exchanged; `one` comes first.
inline std::string withLinesSwapped(const std::string& text, const std::string& one, const std::string& other)
{
    const std::string first = lineOf(text, one);
    const std::string second = lineOf(text, other);
    return withLine(withLine(text, other, first), one, second);
}

} // namespace maintenance::rehearsed
