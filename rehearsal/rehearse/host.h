#pragma once

#include <string>
#include <vector>

/// One directory or symbolic link in "/" of the machine.
struct TopEntry {
    std::string name;   ///< one component, without "/"
    std::string target; ///< where it leads, if it is a symbolic link; otherwise empty
};

/// Returns the directories and symbolic links in "/", in byte order, without those the root makes itself
/// (dev, proc, run, sys, Library, Users). Throws Failure 77 if "/" cannot be read.
std::vector<TopEntry> topEntries();

/// Returns the directories below the ones that topEntries() returns which another file system is mounted on,
/// in the order in which they were mounted, each once. Throws Failure 77 if the mounts cannot be read.
std::vector<std::string> deepMounts();
