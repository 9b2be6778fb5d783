#pragma once

#include <string>

namespace maintenance {

/// Returns a new generation: 32 bytes from the secure random source as 64 lower-case hexadecimal digits.
/// Throws std::runtime_error "cannot create a durable transaction generation" when the source fails.
std::string generation();

} // namespace maintenance
