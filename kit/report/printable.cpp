#include "kit/report/printable.h"

#include <algorithm>
#include <array>

namespace maintenance::kit {

namespace {

constexpr std::string_view hexDigits = "0123456789ABCDEF";

std::string escaped(char c)
{
    switch (c) {
    case '\\':
        return "\\\\";
    case '\t':
        return "\\t";
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    default:
        break;
    }
    if (c >= ' ' && c <= '~')
        return {c};
    const auto byte = static_cast<unsigned char>(c);
    return {'\\', 'x', hexDigits[byte >> 4U], hexDigits[byte & 15U]};
}

bool needsNoQuotes(char c)
{
    constexpr std::string_view plain = "-_./:=@%+,";
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           plain.find(c) != std::string_view::npos;
}

} // namespace

std::string printable(std::string_view text, std::size_t longest)
{
    std::string shown;
    for (const char c : text.substr(0, longest))
        shown += escaped(c);
    if (text.size() > longest)
        shown += "... (" + std::to_string(text.size()) + " bytes)";
    return shown;
}

std::string byteCount(std::uint64_t bytes)
{
    if (bytes < 1000)
        return bytes == 1 ? "1 byte" : std::to_string(bytes) + " bytes";
    constexpr std::array<const char*, 4> units = {" kB", " MB", " GB", " TB"};
    std::size_t unit = 0;
    std::uint64_t scale = 1000;
    while (unit + 1 < units.size() && bytes / scale >= 1000) {
        scale *= 1000;
        ++unit;
    }
    const std::uint64_t tenths = bytes / (scale / 10);
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + units.at(unit);
}

std::string counted(std::size_t count, const std::string& noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string octalMode(unsigned mode)
{
    std::string digits;
    for (unsigned shift = 12; shift > 0; shift -= 3)
        digits += static_cast<char>('0' + ((mode >> (shift - 3)) & 7U));
    return digits;
}

std::string shellQuoted(const std::string& word)
{
    if (!word.empty() && std::all_of(word.begin(), word.end(), needsNoQuotes))
        return word;
    std::string quoted = "'";
    for (const char c : word)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

} // namespace maintenance::kit
