#pragma once

#include "kit/machine/places.h"
#include "kit/text/record_files.h"
#include "plan/descriptor.h"
#include "plan/pending_install.h"
#include "transaction/prepared_state.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace maintenance::kit {

/// A lease, a prepared file or a completed record.
struct StateFile {
    PlacedFile file;
    /// Nothing when the file could not be read or is not valid.
    std::optional<PreparedState> state;
};

/// A descriptor in the inbox.
struct DescriptorFile {
    PlacedFile file;
    /// Nothing when the file could not be read or is not valid.
    std::optional<Descriptor> descriptor;
};

/// A directory below "Transactions".
struct TransactionDirectory {
    std::string path;
    /// Whether it could be entered.
    bool readable = false;
    std::optional<StateFile> prepared;
};

/// What the fixed places of one scope hold.
struct ScopeView {
    std::string scope;
    /// Empty when the scope could not be found.
    std::string root;
    Sightings sightings;
    std::optional<StateFile> lease;
    std::optional<PlacedFile> pendingFile;
    std::optional<PendingInstall> pending;
    /// By identifier, in byte order; so are the next two.
    std::map<std::string, TransactionDirectory> transactions;
    std::map<std::string, StateFile> completed;
    std::map<std::string, DescriptorFile> inbox;
    /// Product to version, as the records say.
    std::map<std::string, std::string> records;
    /// Product to version, as the index says; nothing when there is no index, or none that could be read.
    std::optional<std::map<std::string, std::string>> index;
    /// The process that holds the scope's lock.
    std::optional<pid_t> running;
    /// Temporary files of runs that were killed, and entries that the tool does not know.
    std::vector<std::string> leftovers;
    /// The tool's executable is in its place.
    bool hasTool = false;

    /// A lease or an attempt is there that says nothing, so that something is open, whatever it is.
    bool hidesOpenWork() const { return (lease && !lease->state) || (pendingFile && !pending); }
};

/// Reads the fixed places of a scope. Changes nothing; what cannot be read is noted.
ScopeView readScope(const std::string& scope);

} // namespace maintenance::kit
