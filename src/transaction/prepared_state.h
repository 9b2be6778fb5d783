#pragma once

#include "fs/scope.h"
#include "plan/descriptor.h"

#include <filesystem>
#include <string>
#include <string_view>

namespace maintenance {

/// The record that binds a durable transaction to one exact descriptor.
struct PreparedState {
    /// Equal to the descriptor's identifier.
    std::string transaction;
    /// Tells two preparations of one descriptor apart; 64 lower-case hexadecimal digits.
    std::string generation;
    /// Digest text of the descriptor file's bytes.
    std::string descriptorSha256;
    /// Digest text of the descriptor's canonical text.
    std::string canonicalSha256;
    std::string sourceScope;
    std::string targetScope;
};

/// Returns the state's text: seven lines, each key "=" value and a line feed, in their fixed order. The
/// prepared file, every lease and the completed record hold exactly these bytes.
std::string preparedText(const PreparedState& state);

/// Makes the state that binds a new transaction, with a fresh generation. Throws what generation throws.
PreparedState bindingState(const Descriptor& descriptor);

/// Parses a state's text; the order of its lines does not matter.
/// Throws Invalid "prepared transaction state is invalid".
PreparedState parsePreparedText(std::string_view text);

/// Reads and parses the state at an absolute path below the root of `scope`. Throws what readText (subject
/// "prepared transaction state") and parsePreparedText throw.
PreparedState parsePrepared(const std::filesystem::path& path, const std::string& scope);

/// Requires the state to bind exactly this descriptor.
/// Throws Invalid "prepared transaction descriptor binding changed".
void requireStateBinding(const Descriptor& descriptor, const PreparedState& state);

/// Reads the prepared file of a transaction directory and requires it to bind the descriptor, to be the
/// rendered text, and every lease to hold that text.
///
/// throws  what readText throws for the file and (subject "durable transaction lease") for a lease
///         what parsePreparedText and requireStateBinding throw
///         Invalid "durable transaction lease generation is stale or rebound"
PreparedState verifyPrepared(const Descriptor& descriptor, const std::filesystem::path& transactionDirectory);

/// Returns the content of the scope's lease. Throws what readText throws with the subject "durable
/// transaction lease".
std::string readLease(const std::string& scope);

} // namespace maintenance
