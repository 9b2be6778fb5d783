#pragma once

#include "interrupt/calls.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/// What happens to a call.
enum class Deed {
    KillBefore, ///< the process is killed at its entry; the call does not take effect
    KillAfter,  ///< the process is killed at its exit; what it started lives on
    KillAll,    ///< at its exit the process is killed together with every process it has started
    Fail,       ///< the call is skipped and reports an error
    Shorten,    ///< the call reads or writes only half of what it was asked to
};

/// What happens where in a run.
struct Point {
    Kind kind;
    unsigned long number; ///< of the calls of that kind, counted from 1
    Deed deed;
    int error;    ///< the error number of Fail
    bool onwards; ///< also to every later call of that kind
};

/// The command line.
struct Options {
    std::vector<Point> points;
    std::string report;        ///< path of the report; empty for none
    bool record = false;       ///< list every call in the report
    bool contents = false;     ///< say of each change what it has left
    std::optional<uid_t> user; ///< run as that account, with `group` as its only group
    gid_t group = 0;
    unsigned seconds = 60; ///< a run that takes longer counts as hanging
    std::vector<std::string> command;
};

/// Reads the command line; throws std::runtime_error with one line on wrong usage.
Options readOptions(int count, char** arguments);

/// What --help prints.
const char* helpText();
