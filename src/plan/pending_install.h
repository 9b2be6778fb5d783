#pragma once

#include "fs/scope.h"

#include <string>
#include <string_view>

namespace maintenance {

/// A pending installation attempt: which plan is being installed in a scope, under which transaction.
struct PendingInstall {
    std::string sku;
    std::string packageRevision;
    /// Identifier of the transaction and of the descriptor that was materialised for it.
    std::string transaction;
    /// Digest text of the plan file.
    std::string planSha256;
    /// Digest text of the descriptor file.
    std::string descriptorSha256;
    /// "user" or "system".
    std::string targetScope;
};

/// Where a scope keeps its pending attempt.
FixedPlace pendingInstallPlace(const std::string& scope);

/// Returns the attempt's text: seven lines, each key "=" value and a line feed, in their fixed order.
std::string pendingInstallText(const PendingInstall& attempt);

/// Parses an attempt's text; the order of its lines does not matter.
/// Throws Invalid "pending installation attempt is invalid".
PendingInstall parsePending(std::string_view text);

/// Reads and parses the attempt of a scope. Throws what readFixedRegular (subject "pending installation
/// attempt") and parsePending throw.
PendingInstall readPending(const std::string& scope);

} // namespace maintenance
