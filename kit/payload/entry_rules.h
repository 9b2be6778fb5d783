#pragma once

#include "kit/report/finding.h"

#include <map>
#include <set>
#include <string>
#include <string_view>

namespace maintenance::kit {

/// One entry of a tree or of a package's payload.
struct PayloadEntry {
    enum class Kind { File, Directory, SymbolicLink, Special };

    /// Relative to the scope root, as it stands there.
    std::string path;
    Kind kind = Kind::File;
    /// Permission bits.
    unsigned mode = 0;
    /// It is one of several names of a file.
    bool hardLinked = false;
};

/// Holds the entries of a payload against the rules, one after the other. The rules that concern several
/// entries (spellings that differ in case, a path that is there twice) span all trees and packages of one
/// payload.
class EntryRules {
public:
    /// Examines one entry.
    ///
    /// source    the tree or package that holds it, for messages
    /// findings  gets what is wrong; of a foreign bundle or directory only the first entry is reported
    /// returns   whether the entry is a file that may be planned
    bool examine(const PayloadEntry& entry, const std::string& source, FindingList& findings);

private:
    bool examineName(const PayloadEntry& entry, const std::string& source, FindingList& findings);
    bool examineSpelling(const PayloadEntry& entry, const std::string& source, FindingList& findings);
    bool examineOwnedPath(const PayloadEntry& entry, const std::string& source, FindingList& findings);

    /// Every path seen, with everything above it: spelled in lower case, and as it was first seen.
    std::map<std::string, std::string> spellings_;
    std::map<std::string, PayloadEntry::Kind> kinds_;
    std::set<std::string> reported_;
};

/// Returns what is wrong with the path of an installed file, beyond the rules that every plan is held
/// against: names that Finder leaves, names too long to be published, a path that would be taken for another
/// package's. `place` and line are left empty.
FindingList pathFindings(std::string_view path);

/// Returns the text in lower case, as a file system that ignores case sees it.
std::string caseFolded(std::string_view text);

} // namespace maintenance::kit
