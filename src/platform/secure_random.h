#pragma once

#include <cstddef>

namespace maintenance {

/// Fills `size` bytes at `buffer` (borrowed) from the system's cryptographically secure generator.
/// Returns false when the generator failed; the buffer's content is then not to be used.
bool fillWithSecureRandom(unsigned char* buffer, std::size_t size);

} // namespace maintenance
