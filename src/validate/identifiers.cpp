#include "validate/identifiers.h"

#include <algorithm>

namespace maintenance {

namespace {

constexpr std::size_t longestId = 128;
constexpr std::size_t mostVersionComponents = 4;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isIdEdge(char c) { return isDigit(c) || (c >= 'a' && c <= 'z'); }

bool isIdCharacter(char c) { return isIdEdge(c) || c == '-'; }

bool isLowerHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f'); }

bool allDigits(std::string_view text) { return std::all_of(text.begin(), text.end(), isDigit); }

/// A decimal number without leading zeros.
bool isVersionComponent(std::string_view text)
{
    if (text.empty() || !allDigits(text))
        return false;
    return text == "0" || text.front() != '0';
}

bool removeSuffix(std::string_view& text, std::string_view suffix)
{
    if (!text.ends_with(suffix))
        return false;
    text.remove_suffix(suffix.size());
    return true;
}

} // namespace

bool safeId(std::string_view text)
{
    return !text.empty() && text.size() <= longestId && isIdEdge(text.front()) && isIdEdge(text.back()) &&
           std::all_of(text.begin(), text.end(), isIdCharacter);
}

bool safeVersion(std::string_view text)
{
    for (std::size_t component = 1;; ++component) {
        const std::size_t dot = text.find('.');
        if (!isVersionComponent(text.substr(0, dot)))
            return false;
        if (dot == std::string_view::npos)
            return true;
        if (component == mostVersionComponents)
            return false;
        text.remove_prefix(dot + 1);
    }
}

bool safePackageId(std::string_view text)
{
    if (text == commonPackageId)
        return true;
    if (!text.starts_with(packageIdPrefix))
        return false;
    std::string_view name = text.substr(packageIdPrefix.size());
    return (removeSuffix(name, ".vst3") || removeSuffix(name, ".au")) && safeId(name);
}

bool isRevision(std::string_view text)
{
    return !text.empty() && text.size() <= 9 && text.front() != '0' && allDigits(text);
}

bool isDigest(std::string_view text)
{
    return text.size() == 64 && std::all_of(text.begin(), text.end(), isLowerHex);
}

bool isSerial(std::string_view text) { return !text.empty() && text.size() <= 20 && allDigits(text); }

std::string productPackageId(std::string_view product, std::string_view kind)
{
    return std::string(packageIdPrefix).append(product).append(".").append(kind);
}

} // namespace maintenance
