#pragma once

#include <string>
#include <string_view>

namespace maintenance {

/// Where VST3 bundles live, relative to a scope root.
inline constexpr std::string_view vst3Destination = "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/";
/// Where Audio Unit components live, relative to a scope root.
inline constexpr std::string_view componentsDestination = "Library/Audio/Plug-Ins/Components/";
/// The maintenance tool itself, relative to a scope root.
inline constexpr std::string_view maintenanceExecutable =
    "Library/Application Support/Tamarind Pelican/TamarindPelicanMaintenance";
/// The maker's updater, relative to a scope root.
inline constexpr std::string_view updaterExecutable =
    "Library/Application Support/Tamarind Pelican/TamarindPelicanUpdater";

/// Checks the form of a relative path and returns it unchanged.
///
/// throws  Invalid "owned path is not relative"                          empty, absolute, or with a backslash
///         Invalid "owned path contains an unsafe character"             any byte outside letters, digits and
///                                                                       " ._/-"
///         Invalid "owned path contains traversal or is not normalized"  the text is not its own lexical
///                                                                       normal form
std::string safeLexicalRelative(std::string_view text);

/// Checks that a text names one file that a product may own: inside a bundle of the maker at one of the
/// two plug-in destinations, or one of the two fixed executables. Returns it unchanged.
///
/// throws  what safeLexicalRelative throws
///         Invalid "owned path is outside fixed Tamarind Pelican destinations"  neither destination nor
///                                                                              executable
///         Invalid "owned path is not a Tamarind Pelican plugin bundle"         nothing below the bundle, or
///                                                                              a foreign bundle name
std::string safeRelative(std::string_view text);

} // namespace maintenance
