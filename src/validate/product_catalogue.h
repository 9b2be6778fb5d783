#pragma once

#include <string_view>

namespace maintenance {

/// Tells whether `name` is a bundle name, without its suffix, that the maker uses:
/// "TP " followed by at least one of `[A-Za-z0-9._ -]`, or one of the 23 names of the catalogue.
bool isProductName(std::string_view name);

} // namespace maintenance
