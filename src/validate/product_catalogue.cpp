#include "validate/product_catalogue.h"

#include <algorithm>
#include <array>

namespace maintenance {

namespace {

/// The plug-ins that shipped before bundle names carried the maker's "TP " prefix. As in a pattern, a
/// final "s?" stands for an optional "s".
constexpr std::array<std::string_view, 23> catalogue = {
    "Backwater Bass",    "Brackish Drive",  "Channel Marker",     "Drifting Delay",  "Driftwood Organ",
    "Estuary Filter",    "Fathom Limiter",  "Gullwing Widener",   "Harbour Horns",   "Kelp Granulator",
    "Lagoon Chorus",     "Low Tide Tape",   "Mangrove Reverb",    "Marsh Gate",      "Monsoon Strings",
    "Palm Court Piano",  "Plume Vocoder",   "Rookery Drums?",     "Saltwind Phaser", "Sandbar Compressor",
    "Seedpod Sequencer", "Tidal Equalizer", "Undertow Saturator",
};

bool isPrefixedNameCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == ' ' || c == '-';
}

bool matchesEntry(std::string_view name, std::string_view entry)
{
    if (!entry.ends_with('?'))
        return name == entry;
    entry.remove_suffix(1);
    return name == entry || name == entry.substr(0, entry.size() - 1);
}

} // namespace

bool isProductName(std::string_view name)
{
    constexpr std::string_view makerPrefix = "TP ";
    if (name.starts_with(makerPrefix)) {
        const std::string_view rest = name.substr(makerPrefix.size());
        return !rest.empty() && std::all_of(rest.begin(), rest.end(), isPrefixedNameCharacter);
    }
    return std::any_of(catalogue.begin(), catalogue.end(),
                       [name](std::string_view entry) { return matchesEntry(name, entry); });
}

} // namespace maintenance
