#include "common/text.h"

#include <algorithm>
#include <charconv>

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> parts;
    for (;;) {
        const std::size_t end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos)
            return parts;
        text.remove_prefix(end + 1);
    }
}

std::vector<std::string> lines(std::string_view text)
{
    std::vector<std::string> parts = split(text, '\n');
    if (parts.back().empty())
        parts.pop_back();
    return parts;
}

std::optional<unsigned long> number(std::string_view text)
{
    unsigned long value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    if (text.empty() || result.ec != std::errc() || result.ptr != end || value > 1'000'000'000) {
        return std::nullopt;
    }
    return value;
}

std::string withoutEndSlash(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

bool standsBefore(std::string_view path, std::string_view other)
{
    const auto differ = std::mismatch(path.begin(), path.end(), other.begin(), other.end());
    if (differ.second == other.end())
        return false;
    if (differ.first == path.end())
        return true;
    // A slash ends a name, and a name stands before every longer one that begins with it.
    const auto rank = [](char c) { return c == '/' ? -1 : static_cast<int>(static_cast<unsigned char>(c)); };
    return rank(*differ.first) < rank(*differ.second);
}
