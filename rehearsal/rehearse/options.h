#pragma once

#include <string>
#include <vector>

/// What the command line of rehearse asks for.
struct Options {
    std::string user;                ///< account to run the command as; empty: root
    std::string console = "501";     ///< user id in decimal digits, "none" or "absent"
    std::string size = "512m";       ///< of the memory file system, as mount understands it
    bool ownDevices = false;         ///< /Library and /Users on a file system of their own
    bool help = false;               ///< print the help and do nothing
    std::vector<std::string> shares; ///< directories of the machine that stay writable, canonical
    std::vector<char*> command;      ///< the arguments of main, ended by a null pointer; borrowed
};

/// Reads the arguments of main; throws Failure 125 with what is wrong with them.
Options readOptions(int count, char** arguments);

/// Returns the text that --help prints.
const char* helpText();
