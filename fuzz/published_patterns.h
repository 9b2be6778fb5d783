#pragma once

/// The published rules for names and paths, as ECMAScript patterns.
namespace maintenance::published {

inline constexpr const char* id = "[a-z0-9](?:[a-z0-9-]{0,126}[a-z0-9])?";
inline constexpr const char* version = R"((?:0|[1-9][0-9]*)(?:\.(?:0|[1-9][0-9]*)){0,3})";
inline constexpr const char* package =
    R"(com\.tamarindpelican\.pkg\.(?:common|[a-z0-9](?:[a-z0-9-]{0,126}[a-z0-9])?\.(?:vst3|au)))";
inline constexpr const char* revision = "[1-9][0-9]{0,8}";
inline constexpr const char* digest = "[0-9a-f]{64}";
inline constexpr const char* serial = "[0-9]{1,20}";
inline constexpr const char* lexicalPath = "[A-Za-z0-9 ._-][A-Za-z0-9 ._/-]*";

#define MAINTENANCE_PRODUCT_NAMES                                                                            \
    "(?:TP [A-Za-z0-9._ -]+|Backwater Bass|Brackish Drive|Channel Marker|Drifting Delay|Driftwood "          \
    "Organ|Estuary Filter|Fathom Limiter|Gullwing Widener|Harbour Horns|Kelp Granulator|Lagoon "             \
    "Chorus|Low Tide Tape|Mangrove Reverb|Marsh Gate|Monsoon Strings|Palm Court Piano|Plume "                \
    "Vocoder|Rookery Drums?|Saltwind Phaser|Sandbar Compressor|Seedpod Sequencer|Tidal "                     \
    "Equalizer|Undertow Saturator)"

inline constexpr const char* ownedPath =
    "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/" MAINTENANCE_PRODUCT_NAMES R"(\.vst3/[^]*)"
    "|Library/Audio/Plug-Ins/Components/" MAINTENANCE_PRODUCT_NAMES R"(\.component/[^]*)"
    "|Library/Application Support/Tamarind Pelican/TamarindPelican(?:Maintenance|Updater)";

#undef MAINTENANCE_PRODUCT_NAMES

} // namespace maintenance::published
