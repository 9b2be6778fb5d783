#pragma once

#include "fs/owned_fd.h"
#include "kit/report/finding.h"

#include <map>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace maintenance::kit {

/// What was seen while fixed places were read.
struct Sightings {
    /// Places whose owner, mode or kind the tool would refuse, and files that it would not understand.
    FindingList findings;
    /// Paths that this account may not read.
    std::vector<std::string> unreadable;
};

/// A file at a fixed place.
struct PlacedFile {
    std::string path;
    /// Its content; nothing when it could not be read.
    std::optional<std::string> text;
    /// Its status, without following a link.
    struct stat status;
};

/// The tool's own words for a file that is not as it must be; empty where it has none.
struct UnsafeWords {
    /// Of a link, or of anything else than a regular file with one name.
    std::string kind;
    /// Of another account's file.
    std::string owner;
    /// Of a file that its group or others may write.
    std::string mode;
};

/// An open directory at a fixed place.
struct PlacedDirectory {
    std::string path;
    OwnedFd descriptor;
    /// Whom everything in it must belong to.
    uid_t owner = 0;

    explicit operator bool() const { return static_cast<bool>(descriptor); }
};

/// Opens a scope's root. Empty, with a note, when that is not possible.
PlacedDirectory openRootPlace(const std::string& scope, Sightings& sightings);

/// Opens the directory `name` in `parent` without following a link, and notes what is unsafe about it.
/// Empty when it is not there, and, with a note, when it cannot be entered.
PlacedDirectory openPlace(const PlacedDirectory& parent, const std::string& name, Sightings& sightings);

/// The names in a directory, sorted; none, with a note, when it cannot be listed.
std::vector<std::string> namesAt(const PlacedDirectory& directory, Sightings& sightings);

/// Examines the file `name` in `directory` without following a link or reading it, and notes what is unsafe
/// about it. Nothing when nothing stands there.
std::optional<PlacedFile> examinePlace(const PlacedDirectory& directory, const std::string& name,
                                       const UnsafeWords& words, Sightings& sightings);

/// The same, and reads it where it is a regular file with one name.
///
/// largest  the most bytes that are read
std::optional<PlacedFile> readPlace(const PlacedDirectory& directory, const std::string& name,
                                    const UnsafeWords& words, Sightings& sightings,
                                    std::size_t largest = 1048576);

} // namespace maintenance::kit
