#pragma once

#include <string>

namespace maintenance {

/// Brings everything that was written to and removed from a scope so far to its storage medium, also what was
/// synchronised as Durability::Copy. Needed before a step that cannot be taken back counts on it: the scopes
/// may lie on different devices, and a record made durable on one of them says nothing of the other.
///
/// throws  std::runtime_error "cannot synchronize fixed metadata directory"
///         what openFixedDirectory throws
void settleScope(const std::string& scope);

} // namespace maintenance
