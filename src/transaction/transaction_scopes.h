#pragma once

#include "plan/descriptor.h"

#include <filesystem>
#include <string>
#include <vector>

namespace maintenance {

/// Returns the scope that keeps a transaction's books: "system" whenever it is involved, else the target.
std::string authorityScope(const Descriptor& descriptor);

/// Returns the scopes that a transaction touches: the source unless "none", then the target.
std::vector<std::string> involvedScopes(const Descriptor& descriptor);

/// Returns the absolute path of the transaction's directory.
std::filesystem::path transactionRoot(const Descriptor& descriptor);

/// Returns the absolute path of the record that the transaction was completed.
std::filesystem::path completedPath(const Descriptor& descriptor);

/// Returns the absolute path of the prepared state in a transaction directory.
std::filesystem::path preparedPath(const std::filesystem::path& transactionDirectory);

} // namespace maintenance
