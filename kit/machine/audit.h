#pragma once

#include "kit/machine/registrations.h"
#include "kit/machine/scope_view.h"
#include "kit/text/listed_files.h"

#include <string>
#include <vector>

namespace maintenance::kit {

/// What must be at a path.
struct ExpectedFile {
    std::string packageId;
    std::string version;
    /// Each content that it may have, as a digest: records do not tell which of several descriptors was
    /// committed and which was rolled back.
    std::set<std::string> sha256;
};

/// What an audit holds the installed files against.
struct Reference {
    /// By path, in byte order.
    std::map<std::string, ExpectedFile> files;
    /// The packages that it speaks of.
    std::set<std::string> packages;
    /// Where it comes from, for people.
    std::vector<std::string> origins;

    void add(const std::string& path, const ListedFile& listed);
};

/// Takes the reference from the descriptors of completed transactions in the scope's inbox: for each
/// registered package the descriptors that list it at the registered version. A file that is not registered
/// is expected where all of them list it.
Reference completedReference(const std::map<std::string, ScopeView>& views, const std::string& scope,
                             const Registrations& registrations);

/// What an audit has found.
struct Audit {
    std::size_t files = 0;
    std::size_t packages = 0;
    /// Files whose content nothing vouches for.
    std::size_t unvouched = 0;
    FindingList findings;
    /// Packages to install again, with their versions, in byte order.
    std::map<std::string, std::string> reinstall;
    /// Files that this account may not read.
    std::vector<std::string> unreadable;
};

/// Audits every registered file of a scope, and every file that the reference lists.
///
/// showProgress  draw a bar while hashing
Audit auditScope(const std::string& scope, const Registrations& registrations, const Reference& reference,
                 bool showProgress);

} // namespace maintenance::kit
