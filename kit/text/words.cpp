#include "kit/text/words.h"

#include "kit/report/printable.h"
#include "validate/invalid.h"
#include "validate/owned_path.h"
#include "validate/text_fields.h"

#include <algorithm>
#include <array>

namespace maintenance::kit {

namespace {

constexpr std::array<std::string_view, 4> destinations = {vst3Destination, componentsDestination,
                                                          maintenanceExecutable, updaterExecutable};

bool isPathCharacter(char c)
{
    constexpr std::string_view others = " ._/-";
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           others.find(c) != std::string_view::npos;
}

PathRefusal explainForm(std::string_view path, const char* message)
{
    if (path.empty() || path.front() == '/')
        return {message, "a path is relative to the scope root and not empty", "take the leading \"/\" away"};
    if (path.find('\\') != std::string_view::npos)
        return {message, "a path has no backslash", "give the file another name"};
    const auto odd = std::find_if_not(path.begin(), path.end(), isPathCharacter);
    if (odd != path.end())
        return {message,
                "a path has only letters, digits, blanks and . _ / - (byte " +
                    std::to_string(odd - path.begin() + 1) + " is " + printable({odd, 1}) + ")",
                "give the file another name"};
    return {message, "a path is written without \"//\", \"/./\", \"/../\" and a final \"/.\" or \"/..\"",
            "write the path as it is on disk"};
}

PathRefusal explainPlace(std::string_view path, const char* message)
{
    if (path.starts_with(vst3Destination) || path.starts_with(componentsDestination)) {
        const std::string suffix = path.starts_with(vst3Destination) ? ".vst3" : ".component";
        return {message,
                "a file lies inside a bundle called \"TP \" and a name, or one of the older products' names, "
                "and " +
                    suffix,
                "rename the bundle, or leave it out of the installation"};
    }
    return {message,
            "a file lies in \"" + std::string(vst3Destination) + "\" or \"" +
                std::string(componentsDestination) +
                "\", or is one of the two executables in \"Library/Application Support/Tamarind Pelican\"",
            path.ends_with("transaction-plan.tpmp")
                ? "the plan travels with the installer's scripts, in no payload; take it out"
                : "take it out of the payload"};
}

/// Tells whether `path` is a directory on the way to a destination.
bool leadsToDestination(const std::string& path)
{
    return std::any_of(destinations.begin(), destinations.end(),
                       [&](std::string_view place) { return place.starts_with(path + "/"); });
}

} // namespace

PathRefusal refusalOfRelativePath(std::string_view path)
{
    try {
        safeLexicalRelative(path);
        return {};
    } catch (const Invalid& error) {
        return explainForm(path, error.what());
    }
}

PathRefusal refusalOfOwnedPath(std::string_view path)
{
    PathRefusal refusal = refusalOfRelativePath(path);
    if (!refusal.message.empty())
        return refusal;
    try {
        safeRelative(path);
        return {};
    } catch (const Invalid& error) {
        return explainPlace(path, error.what());
    }
}

std::string outermostForeign(std::string_view path)
{
    for (const std::string_view destination : {vst3Destination, componentsDestination})
        if (path.starts_with(destination))
            return std::string(path.substr(0, path.find('/', destination.size())));
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos;
         slash = path.find('/', slash + 1))
        if (const std::string part(path.substr(0, slash)); !leadsToDestination(part))
            return part;
    return std::string(path);
}

bool hasHugeNumber(std::string_view version)
{
    constexpr std::string_view largest = "18446744073709551615";
    for (const std::string& number : split(version, '.'))
        if (number.size() > largest.size() || (number.size() == largest.size() && number > largest))
            return true;
    return false;
}

} // namespace maintenance::kit
