#pragma once

#include <optional>
#include <string>

/// One request to the tool.
struct Call {
    std::string command; ///< "--pkgs", "--pkgs=", "--pkg-info", "--files" or "--forget"
    std::string subject; ///< the identifier, or the expression of "--pkgs="; empty for "--pkgs"
    std::string volume;  ///< "/" or a home, without a slash at its end
};

/// Reads the arguments of main. Returns nothing unless they name exactly one command with its identifier.
std::optional<Call> readCall(int count, char** arguments);
