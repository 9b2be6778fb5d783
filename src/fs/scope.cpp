#include "fs/scope.h"

#include "platform/console_account.h"
#include "platform/shortage.h"
#include "validate/invalid.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>
#include <pwd.h>
#include <stdexcept>
#include <unistd.h>
#include <vector>

namespace maintenance {

bool isScope(std::string_view word) { return word == "user" || word == "system"; }

uid_t invokingAccountUid()
{
    const uid_t realUid = ::getuid();
    if (realUid != 0)
        return realUid;

    // Half a run for one account and half for another would leave neither of them whole.
    static std::optional<uid_t> firstAnswer;
    const std::optional<uid_t> answer = consoleAccountUid();
    const bool usable = answer && *answer != 0 && *answer != std::numeric_limits<uid_t>::max();
    if (!usable || (firstAnswer && *firstAnswer != *answer))
        throw Invalid("cannot resolve the invoking console account");
    firstAnswer = answer;
    return *answer;
}

namespace {

/// Looks up an account's home directory; nothing when there is no such account.
std::optional<std::string> lookUpHome(uid_t uid)
{
    constexpr long smallestBuffer = 1024;
    const long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(static_cast<std::size_t>(std::max(suggested, smallestBuffer)), '\0');
    passwd record{};
    passwd* found = nullptr;
    const int failure = ::getpwuid_r(uid, &record, buffer.data(), buffer.size(), &found);
    // Taken for "no such account", a shortage would hide what is installed in the account's home.
    if (meansShortage(failure) || failure == EACCES)
        throw std::runtime_error("cannot resolve the invoking account home");
    if (failure != 0 || found == nullptr || found->pw_dir == nullptr || *found->pw_dir != '/')
        return std::nullopt;
    return found->pw_dir;
}

std::string homeOf(uid_t uid)
{
    std::optional<std::string> home = lookUpHome(uid);
    // Some libraries say "no such account" also when reading the records failed.
    if (!home)
        home = lookUpHome(uid);
    if (!home)
        throw Invalid("cannot resolve the invoking account home");
    return *home;
}

} // namespace

std::string invokingHome() { return homeOf(invokingAccountUid()); }

std::string scopeRoot(const std::string& scope) { return scope == "user" ? invokingHome() : "/"; }

uid_t scopeOwner(const std::string& scope) { return scope == "user" ? invokingAccountUid() : 0; }

ScopeAccount scopeAccount(const std::string& scope)
{
    if (scope != "user")
        return {"/", 0};
    const uid_t owner = invokingAccountUid();
    return {homeOf(owner), owner};
}

std::string oppositeScope(const std::string& scope) { return scope == "user" ? "system" : "user"; }

std::filesystem::path absolutePath(const FixedPlace& place)
{
    return std::filesystem::path(scopeRoot(place.scope)) / place.relative;
}

FixedPlace below(const FixedPlace& place, std::string_view name)
{
    return {place.scope, (std::filesystem::path(place.relative) / name).native()};
}

std::filesystem::path maintenanceRoot(const std::string& scope)
{
    return std::filesystem::path(scopeRoot(scope)) / maintenanceDirectory;
}

std::filesystem::path activePath(const std::string& scope)
{
    return maintenanceRoot(scope) / "ActiveTransaction";
}

FixedPlace placeInScope(const std::string& scope, const std::filesystem::path& path)
{
    return {scope, path.lexically_relative(scopeRoot(scope)).native()};
}

std::optional<FixedPlace> fixedLocation(const std::filesystem::path& path)
{
    const std::filesystem::path normal = path.lexically_normal();
    if (normal.native().starts_with("/Library/"))
        return FixedPlace{"system", normal.lexically_relative("/").native()};
    // Written as "/Users/x/" or "/Users/y/../x", the home would not match the normal form of what lies in it.
    const std::filesystem::path home = (std::filesystem::path(invokingHome()) / "").lexically_normal();
    std::string relative = normal.lexically_relative(home.parent_path()).native();
    // An identical path's relative form is ".", which names no place below the home.
    if (relative.empty() || relative == "." || relative.starts_with(".."))
        return std::nullopt;
    return FixedPlace{"user", std::move(relative)};
}

} // namespace maintenance
