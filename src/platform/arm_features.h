#pragma once

namespace maintenance {

/// Tells whether this processor is an ARM one with the SHA-256 instructions of the cryptographic extensions.
bool armHasSha256();

} // namespace maintenance
