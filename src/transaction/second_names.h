#pragma once

#include "plan/descriptor.h"

#include <string>

namespace maintenance {

// A rename takes two steps on a file system without a journal. A power cut between them leaves a file with
// two names, the temporary one and its own, and every check refuses such a file.

/// Takes away the temporary one of two such names in the scope's metadata directories. Must be called with
/// the scope's lock held. What cannot be looked at or removed stays, for the steps that follow to name.
void removeSecondNames(const std::string& scope);

/// Does the same in every involved scope, in the transaction's directory, and, once the transaction is
/// prepared, for the files that a restoration of it puts back. What it puts back is never taken for a
/// temporary name itself.
void removeSecondNames(const Descriptor& descriptor);

} // namespace maintenance
