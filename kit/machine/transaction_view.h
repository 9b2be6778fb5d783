#pragma once

#include "kit/machine/registrations.h"
#include "kit/machine/scope_view.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace maintenance::kit {

/// What was seen on this machine.
struct MachineView {
    /// The scopes that were read, by name. Transactions span both, so both are read even where one is asked
    /// for.
    std::map<std::string, ScopeView> scopes;
    std::map<std::string, Registrations> registrations;
};

/// Reads both scopes. Changes nothing.
MachineView readMachine();

/// The states of a transaction, told apart by files alone.
enum class TransactionState {
    /// A descriptor is in the inbox and nothing was done about it.
    Absent,
    /// prepare-move was interrupted before it could promise anything.
    Creating,
    /// prepare-move was interrupted while it published the leases.
    LeasesIncomplete,
    Prepared,
    /// Prepared, and a run that holds the lock is working on it.
    InProgress,
    /// A commit-move failed and put everything back.
    Abandoned,
    /// Done, but what it kept on disk is still there.
    CleanUpPending,
    Completed,
    /// Files contradict each other, so that no command acts.
    Contradictory,
    /// This account may not read enough to tell.
    Unreadable,
};

/// The word for a state in JSON and for people.
const char* wordOf(TransactionState state);

/// One way to end what is open.
struct WayOut {
    /// "finish" or "undo".
    std::string effect;
    /// What must be true first; may be empty.
    std::string condition;
    /// Commands as a shell takes them, to be run one after the other.
    std::vector<std::string> commands;
};

/// A transaction on this machine.
struct TransactionView {
    std::string id;
    /// The scope that keeps its books.
    std::string authority;
    /// "none", "user" or "system"; empty when it is not known.
    std::string source;
    /// "user" or "system"; empty when it is not known.
    std::string target;
    TransactionState state = TransactionState::Absent;
    /// The products and versions that it is about, as "heron 1.0.0"; empty when the descriptor cannot be
    /// read.
    std::vector<std::string> products;
    /// It belongs to the pending attempt of its target scope.
    bool pending = false;
    /// A lease or a directory of it is there, which no transaction leaves that has ended.
    bool hasTraces = false;
    /// What somebody should know about it.
    std::vector<std::string> notes;
    std::vector<WayOut> waysOut;

    /// Somebody has to do something about it.
    bool isOpen() const;
};

/// Puts together what the files of both scopes say of each transaction, by identifier in byte order.
std::vector<TransactionView> transactionsOf(const MachineView& machine);

} // namespace maintenance::kit
