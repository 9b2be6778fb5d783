#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace maintenance {

// A scope is the word "user" (the invoking account's home) or "system" ("/"). A descriptor's source scope
// can also be "none". For roots and owners every word but "user" means the system.

/// The maker's directory below a scope root; what lies in it is checked for owner and mode.
inline constexpr std::string_view supportDirectory = "Library/Application Support/Tamarind Pelican";
/// Where a scope keeps all metadata of the tool, relative to the scope root.
inline constexpr std::string_view maintenanceDirectory =
    "Library/Application Support/Tamarind Pelican/Maintenance";

/// A place below a scope root: the scope and the path relative to its root ("" is the root itself).
struct FixedPlace {
    std::string scope;
    std::string relative;
};

/// Tells whether a word is one of the two scopes, exactly.
bool isScope(std::string_view word);

/// Returns the user id of the invoking account: the real user id of the process, or, when that is root,
/// the account logged in at the console. Asks the system again on every call.
///
/// throws  Invalid "cannot resolve the invoking console account"  the process is root's and the console
///         account is unknown, root, or another one than this run was first told
///         std::runtime_error with the same text when the system could not answer just now
uid_t invokingAccountUid();

/// Returns the invoking account's home directory as the account database gives it.
///
/// throws  what invokingAccountUid throws
///         Invalid "cannot resolve the invoking account home"  no record, or no absolute home in it
///         std::runtime_error with the same text when the system could not answer just now
std::string invokingHome();

/// Returns the directory that a scope's relative paths start from: the home for "user", else "/".
/// Throws what invokingHome throws.
std::string scopeRoot(const std::string& scope);

/// Returns the user id that owns everything the tool creates or accepts in the scope: the invoking account
/// for "user", else 0. Throws what invokingAccountUid throws.
uid_t scopeOwner(const std::string& scope);

/// A scope's root directory and the account that owns what the tool creates there.
struct ScopeAccount {
    std::string root;
    uid_t owner;
};

/// Returns scopeRoot and scopeOwner from one look-up. Throws what invokingHome throws.
ScopeAccount scopeAccount(const std::string& scope);

/// Returns the other scope word: "system" for "user", "user" for anything else.
std::string oppositeScope(const std::string& scope);

/// Returns the absolute path of a place.
std::filesystem::path absolutePath(const FixedPlace& place);

/// Returns the place of `name` inside the directory at `place`.
FixedPlace below(const FixedPlace& place, std::string_view name);

/// Returns the absolute path of the scope's metadata directory.
std::filesystem::path maintenanceRoot(const std::string& scope);

/// Returns the absolute path of the scope's lease, which marks a transaction as active there.
std::filesystem::path activePath(const std::string& scope);

/// Returns the place of a path that lies below the root of `scope`, without asking whether it could also
/// belong to the other scope. A path elsewhere gives a relative path that begins with "..", which
/// every directory walk refuses.
FixedPlace placeInScope(const std::string& scope, const std::filesystem::path& path);

/// Tells which scope an absolute path lies in, after lexical normalisation: "/Library/..." is the system's,
/// anything below the invoking account's home the user's, everything else nothing (also the home itself
/// and any path whose relative form begins with ".."). Throws what invokingHome throws.
std::optional<FixedPlace> fixedLocation(const std::filesystem::path& path);

} // namespace maintenance
