#pragma once

#include "pkgutil/arguments.h"

#include <optional>
#include <string>
#include <vector>

/// How the tool behaves at one call. The default is what the real tool is known or believed to do.
struct Behaviour {
    enum class Match { whole, prefix, anywhere };
    Match match = Match::whole;              ///< what an expression must match
    int emptyHomeStatus = 1;                 ///< of a plain listing of a home without any receipt
    int noMatchStatus = 1;                   ///< of a listing by an expression that matches nothing
    bool twins = false;                      ///< list a "._name" twin for every path
    bool forget = true;                      ///< whether forgetting deletes the receipt
    std::optional<std::string> errorLine;    ///< one more line on standard error
    std::optional<int> exitStatus;           ///< instead of the proper one
    unsigned long padding = 0;               ///< bytes a listing has at least
    std::optional<unsigned long> longLine;   ///< letters of one more line
    std::optional<std::string> replacement;  ///< file with what is printed instead
    std::optional<unsigned long> cut;        ///< bytes that are printed at most
    std::vector<std::string> commandsBefore; ///< for the shell, before anything else
    std::vector<std::string> commandsAfter;  ///< for the shell, after the output
    int signalBefore = 0;                    ///< to die by before doing anything; 0: none
    int signalAfter = 0;                     ///< to die by after the output; 0: none
};

/// Returns how /etc/pkgutil-stand-in.conf wants the tool to behave at `call`, and counts the call if the file
/// asks for calls by their number. Throws BadControlFile.
Behaviour behaviourFor(const Call& call);
