#include "installer/arguments.h"

#include "common/text.h"
#include "installer/failure.h"

#include <filesystem>
#include <pwd.h>
#include <unistd.h>

namespace {

Target targetFrom(const std::string& text)
{
    const std::string path = withoutEndSlash(text);
    if (path == "/") {
        if (::geteuid() != 0)
            throw Failure("Must be run as root to install this package.");
        return {"/", 0, 0};
    }
    const passwd* account = ::getpwuid(::geteuid());
    if (account == nullptr)
        throw Failure("The running account is unknown.");
    if (path != "CurrentUserHomeDirectory" && path != account->pw_dir) {
        throw Failure("Target '" + text + "' is neither / nor the home of " + account->pw_name + ".");
    }
    return {account->pw_dir, account->pw_uid, account->pw_gid};
}

} // namespace

std::string Target::at(const std::string& relative) const
{
    const std::size_t start = relative.find_first_not_of('/');
    const std::string base = path == "/" ? "" : path;
    if (start == std::string::npos)
        return path;
    return withoutEndSlash(base + "/" + relative.substr(start));
}

Request readRequest(int count, char** arguments)
{
    std::string package;
    std::string target;
    for (int next = 1; next < count; next += 2) {
        const std::string option = arguments[next];
        if (next + 1 == count || (option != "-pkg" && option != "-target")) {
            throw Failure("usage: installer -pkg FILE -target / | HOME | CurrentUserHomeDirectory");
        }
        (option == "-pkg" ? package : target) = arguments[next + 1];
    }
    if (package.empty() || target.empty()) {
        throw Failure("usage: installer -pkg FILE -target / | HOME | CurrentUserHomeDirectory");
    }
    if (::access(package.c_str(), R_OK) != 0)
        failed("Cannot read package " + package);
    return {std::filesystem::absolute(package).string(), targetFrom(target)};
}
