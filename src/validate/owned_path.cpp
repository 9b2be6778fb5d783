#include "validate/owned_path.h"

#include "validate/invalid.h"
#include "validate/product_catalogue.h"

#include <algorithm>

namespace maintenance {

namespace {

bool isPathCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == ' ' ||
           c == '.' || c == '_' || c == '/' || c == '-';
}

/// Tells whether a text is its own lexical normal form as a path. Said of every path of a plan or receipt, so
/// without building the path and its normal form.
bool isNormal(std::string_view text)
{
    if (text == ".")
        return true;
    bool climbing = true;
    while (!text.empty()) {
        const std::size_t slash = text.find('/');
        const std::string_view name = text.substr(0, slash);
        const bool climbs = name == "..";
        if (name.empty() || name == "." || (climbs && !climbing))
            return false;
        climbing = climbs;
        if (slash == std::string_view::npos)
            return true;
        text.remove_prefix(slash + 1);
    }
    // Ended by a "/", which the normal form keeps behind a name only.
    return !climbing;
}

/// Requires `rest`, what stands behind a destination prefix, to be a file inside a bundle of the maker.
void requireBundleMember(std::string_view rest, std::string_view bundleSuffix)
{
    const std::size_t slash = rest.find('/');
    std::string_view bundle = rest.substr(0, slash);
    const bool fits = slash != std::string_view::npos && rest.back() != '/' &&
                      bundle.ends_with(bundleSuffix) &&
                      isProductName(bundle.substr(0, bundle.size() - bundleSuffix.size()));
    if (!fits)
        throw Invalid("owned path is not a Tamarind Pelican plugin bundle");
}

} // namespace

std::string safeLexicalRelative(std::string_view text)
{
    if (text.empty() || text.front() == '/' || text.find('\\') != std::string_view::npos)
        throw Invalid("owned path is not relative");
    if (!std::all_of(text.begin(), text.end(), isPathCharacter))
        throw Invalid("owned path contains an unsafe character");
    if (!isNormal(text))
        throw Invalid("owned path contains traversal or is not normalized");
    return std::string(text);
}

std::string safeRelative(std::string_view text)
{
    std::string path = safeLexicalRelative(text);
    if (text.starts_with(vst3Destination))
        requireBundleMember(text.substr(vst3Destination.size()), ".vst3");
    else if (text.starts_with(componentsDestination))
        requireBundleMember(text.substr(componentsDestination.size()), ".component");
    else if (text != maintenanceExecutable && text != updaterExecutable)
        throw Invalid("owned path is outside fixed Tamarind Pelican destinations");
    return path;
}

} // namespace maintenance
