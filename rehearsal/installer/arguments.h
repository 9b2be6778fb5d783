#pragma once

#include <string>
#include <sys/types.h>

/// Where a package is to be installed, and whose its files will be.
struct Target {
    std::string path; ///< "/" or a home, without a slash at its end
    uid_t uid = 0;
    gid_t gid = 0;

    /// Returns the absolute path of `relative`, which may begin with a slash and is taken from this target.
    [[nodiscard]] std::string at(const std::string& relative) const;
};

/// One request to the tool.
struct Request {
    std::string package; ///< absolute path of the package file
    Target target;
};

/// Reads the arguments of main. Throws Failure for wrong usage, for "/" without root's rights, and for a home
/// that is not the running account's.
Request readRequest(int count, char** arguments);
