#include "kit/machine/transaction_view.h"

#include "fs/scope.h"
#include "kit/machine/ways_out.h"
#include "transaction/transaction_scopes.h"

#include <algorithm>
#include <set>

namespace maintenance::kit {

namespace {

/// What the leases of the involved scopes say of one transaction.
struct Leases {
    std::size_t matching = 0;
    std::size_t missing = 0;
    /// Of the same transaction with another content, or damaged.
    std::size_t contradicting = 0;
    bool unreadable = false;
};

std::string authorityOf(const std::string& source, const std::string& target)
{
    return source == "system" ? "system" : target;
}

std::vector<std::string> involvedIn(const TransactionView& transaction)
{
    if (transaction.source == "none" || transaction.source.empty())
        return {transaction.target};
    return {transaction.source, transaction.target};
}

/// Tells whether something at or above `path` could not be read.
bool isHidden(const ScopeView& view, const std::string& path)
{
    return std::any_of(
        view.sightings.unreadable.begin(), view.sightings.unreadable.end(),
        [&](const std::string& hidden) { return path == hidden || path.starts_with(hidden + "/"); });
}

const std::optional<std::string>* textOf(const std::optional<StateFile>& file)
{
    return file ? &file->file.text : nullptr;
}

/// The transaction that a scope's lease names, where it is another one; otherwise empty.
std::string holderOtherThan(const std::string& id, const ScopeView& view)
{
    if (!view.lease || !view.lease->state || view.lease->state->transaction == id)
        return {};
    return view.lease->state->transaction;
}

/// Another transaction that holds the lease of an involved scope; empty when there is none.
std::string blockerOf(const MachineView& machine, const TransactionView& transaction)
{
    for (const std::string& scope : involvedIn(transaction)) {
        const auto view = machine.scopes.find(scope);
        if (view == machine.scopes.end())
            continue;
        if (std::string holder = holderOtherThan(transaction.id, view->second); !holder.empty())
            return holder;
    }
    return {};
}

Leases leasesOf(const MachineView& machine, const TransactionView& transaction, const std::string& text)
{
    Leases leases;
    for (const std::string& scope : involvedIn(transaction)) {
        const auto view = machine.scopes.find(scope);
        if (view == machine.scopes.end())
            continue;
        const std::optional<std::string>* lease = textOf(view->second.lease);
        if (lease == nullptr)
            ++leases.missing;
        else if (!*lease)
            leases.unreadable = true;
        else if (**lease == text)
            ++leases.matching;
        else if (holderOtherThan(transaction.id, view->second).empty())
            ++leases.contradicting;
        else
            ++leases.missing;
        if (lease == nullptr && isHidden(view->second, activePath(scope).native()))
            leases.unreadable = true;
    }
    return leases;
}

/// Finds the identifiers of all transactions that a scope keeps the books of.
std::set<std::string> identifiersIn(const MachineView& machine, const ScopeView& view)
{
    std::set<std::string> ids;
    for (const auto& [id, directory] : view.transactions)
        ids.insert(id);
    for (const auto& [id, record] : view.completed)
        ids.insert(id);
    for (const auto& [scope, other] : machine.scopes) {
        for (const auto& [id, file] : other.inbox)
            if (file.descriptor ? authorityScope(*file.descriptor) == view.scope : scope == view.scope)
                ids.insert(id);
        if (other.lease && other.lease->state) {
            const PreparedState& state = *other.lease->state;
            if (authorityOf(state.sourceScope, state.targetScope) == view.scope)
                ids.insert(state.transaction);
        }
    }
    // begin-install notes the attempt before it writes the descriptor.
    if (view.pending)
        ids.insert(view.pending->transaction);
    return ids;
}

/// The files of one transaction.
struct Evidence {
    const TransactionDirectory* directory = nullptr;
    const StateFile* record = nullptr;
    const DescriptorFile* descriptor = nullptr;
    /// From the record, the prepared file or a lease.
    const PreparedState* state = nullptr;
};

template <typename Map> auto find(const Map& map, const std::string& key)
{
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
}

const PreparedState* leaseStateOf(const MachineView& machine, const std::string& id)
{
    for (const auto& [scope, view] : machine.scopes)
        if (view.lease && view.lease->state && view.lease->state->transaction == id)
            return &*view.lease->state;
    return nullptr;
}

/// A transaction's descriptor lies in its target scope, which may be the other one.
const DescriptorFile* descriptorOf(const MachineView& machine, const std::string& id,
                                   const std::string& authority, const PreparedState* state)
{
    for (const auto& [scope, view] : machine.scopes) {
        const DescriptorFile* file = find(view.inbox, id);
        if (file == nullptr)
            continue;
        const bool belongs = state != nullptr   ? state->targetScope == scope
                             : file->descriptor ? authorityScope(*file->descriptor) == authority
                                                : scope == authority;
        if (belongs)
            return file;
    }
    return nullptr;
}

Evidence gather(const MachineView& machine, const ScopeView& view, const std::string& id)
{
    Evidence evidence;
    evidence.directory = find(view.transactions, id);
    evidence.record = find(view.completed, id);
    if (evidence.record != nullptr && evidence.record->state)
        evidence.state = &*evidence.record->state;
    else if (evidence.directory != nullptr && evidence.directory->prepared &&
             evidence.directory->prepared->state)
        evidence.state = &*evidence.directory->prepared->state;
    else
        evidence.state = leaseStateOf(machine, id);
    evidence.descriptor = descriptorOf(machine, id, view.scope, evidence.state);
    return evidence;
}

TransactionState stateWithRecord(const Evidence& evidence, const Leases& leases, bool pending)
{
    if (!evidence.record->state)
        return evidence.record->file.text ? TransactionState::Contradictory : TransactionState::Unreadable;
    if (evidence.directory == nullptr && leases.matching == 0 && !pending)
        return TransactionState::Completed;
    return leases.contradicting > 0 ? TransactionState::Contradictory : TransactionState::CleanUpPending;
}

TransactionState stateWhenPrepared(const Leases& leases)
{
    if (leases.unreadable)
        return TransactionState::Unreadable;
    if (leases.contradicting > 0)
        return TransactionState::Contradictory;
    if (leases.matching == 0)
        return TransactionState::Abandoned;
    return leases.missing > 0 ? TransactionState::LeasesIncomplete : TransactionState::Prepared;
}

TransactionState stateOf(const MachineView& machine, const ScopeView& view,
                         const TransactionView& transaction, const Evidence& evidence)
{
    if (evidence.record != nullptr)
        return stateWithRecord(evidence,
                               leasesOf(machine, transaction, evidence.record->file.text.value_or("")),
                               transaction.pending);
    if (evidence.directory == nullptr) {
        if (leaseStateOf(machine, transaction.id) == nullptr)
            return TransactionState::Absent;
        return isHidden(view, (maintenanceRoot(view.scope) / "Transactions").native())
                   ? TransactionState::Unreadable
                   : TransactionState::Contradictory;
    }
    if (!evidence.directory->readable)
        return TransactionState::Unreadable;
    if (!evidence.directory->prepared)
        return leaseStateOf(machine, transaction.id) == nullptr ? TransactionState::Creating
                                                                : TransactionState::Contradictory;
    const StateFile& prepared = *evidence.directory->prepared;
    if (!prepared.file.text)
        return TransactionState::Unreadable;
    if (!prepared.state || preparedText(*prepared.state) != *prepared.file.text)
        return TransactionState::Contradictory;
    return stateWhenPrepared(leasesOf(machine, transaction, *prepared.file.text));
}

/// Tells whether a run that holds the lock may be about to change what a state was told from.
bool passesWithARun(TransactionState state)
{
    return state == TransactionState::Creating || state == TransactionState::LeasesIncomplete ||
           state == TransactionState::Prepared || state == TransactionState::CleanUpPending;
}

/// Scopes as the transaction's own state gives them, else as its descriptor does.
void takeScopes(TransactionView& transaction, const Evidence& evidence)
{
    if (evidence.state != nullptr) {
        transaction.source = evidence.state->sourceScope;
        transaction.target = evidence.state->targetScope;
    } else if (evidence.descriptor != nullptr && evidence.descriptor->descriptor) {
        transaction.source = evidence.descriptor->descriptor->sourceScope;
        transaction.target = evidence.descriptor->descriptor->targetScope;
    }
    if (transaction.target.empty() && transaction.pending) {
        transaction.source = "none";
        transaction.target = transaction.authority;
    }
    // A state file is not checked for its scopes by the tool's parser.
    const bool known =
        isScope(transaction.target) && (transaction.source == "none" || isScope(transaction.source));
    if (!known)
        transaction.source = transaction.target = {};
}

void noteDescriptor(TransactionView& transaction, const Evidence& evidence)
{
    if (evidence.descriptor == nullptr && transaction.state != TransactionState::Completed)
        transaction.notes.emplace_back(
            transaction.pending ? "its descriptor is not in the inbox; begin-install writes it again"
                                : "its descriptor is not in the inbox; no command acts until it is back");
    else if (evidence.descriptor != nullptr && evidence.descriptor->descriptor && evidence.state != nullptr &&
             evidence.state->descriptorSha256 != evidence.descriptor->descriptor->fileSha256)
        transaction.notes.emplace_back("its descriptor was exchanged since (SHA-256 of the right one: " +
                                       evidence.state->descriptorSha256 +
                                       "); no command acts until it is back");
}

/// An uninstallation that was interrupted at its end has taken the tool away with the shared package.
void noteMissingTool(const MachineView& machine, TransactionView& transaction)
{
    const bool isThere = std::any_of(machine.scopes.begin(), machine.scopes.end(),
                                     [](const auto& scope) { return scope.second.hasTool; });
    if (!transaction.waysOut.empty() && !isThere)
        transaction.notes.emplace_back(
            "the tool is not in its place; copy it there from where it was run before, "
            "without installing its package");
}

TransactionView viewOf(const MachineView& machine, const ScopeView& view, const std::string& id)
{
    const Evidence evidence = gather(machine, view, id);
    TransactionView transaction;
    transaction.id = id;
    transaction.authority = view.scope;
    // An attempt has no source, so that its scope keeps the books.
    transaction.pending = view.pending && view.pending->transaction == id;
    transaction.hasTraces = evidence.directory != nullptr || leaseStateOf(machine, id) != nullptr;
    takeScopes(transaction, evidence);
    const Descriptor* descriptor = evidence.descriptor != nullptr && evidence.descriptor->descriptor
                                       ? &*evidence.descriptor->descriptor
                                       : nullptr;
    if (descriptor != nullptr)
        for (const Product& product : descriptor->products)
            transaction.products.push_back(product.id + " " + product.targetVersion);
    transaction.state = stateOf(machine, view, transaction, evidence);
    if (view.running && passesWithARun(transaction.state))
        transaction.state = TransactionState::InProgress;
    noteDescriptor(transaction, evidence);
    if (const std::string blocker = blockerOf(machine, transaction);
        !blocker.empty() && transaction.isOpen() && transaction.state != TransactionState::Contradictory)
        transaction.notes.push_back("the transaction " + blocker +
                                    " is active; end that one first, then ask again");
    else
        addWaysOut(machine, transaction, descriptor);
    noteMissingTool(machine, transaction);
    return transaction;
}

} // namespace

MachineView readMachine()
{
    MachineView machine;
    for (const char* scope : {"user", "system"}) {
        machine.scopes.emplace(scope, readScope(scope));
        machine.registrations.emplace(scope, readRegistrations(scope));
    }
    return machine;
}

const char* wordOf(TransactionState state)
{
    switch (state) {
    case TransactionState::Absent:
        return "absent";
    case TransactionState::Creating:
        return "creating";
    case TransactionState::LeasesIncomplete:
        return "prepared, leases incomplete";
    case TransactionState::Prepared:
        return "prepared";
    case TransactionState::InProgress:
        return "in progress";
    case TransactionState::Abandoned:
        return "abandoned";
    case TransactionState::CleanUpPending:
        return "completed, clean-up pending";
    case TransactionState::Completed:
        return "completed";
    case TransactionState::Contradictory:
        return "contradictory";
    case TransactionState::Unreadable:
        break;
    }
    return "unreadable";
}

bool TransactionView::isOpen() const
{
    switch (state) {
    case TransactionState::Absent:
        return pending;
    case TransactionState::Unreadable:
        return pending || hasTraces;
    case TransactionState::InProgress:
    case TransactionState::Completed:
        return false;
    default:
        return true;
    }
}

std::vector<TransactionView> transactionsOf(const MachineView& machine)
{
    std::vector<TransactionView> transactions;
    for (const auto& [scope, view] : machine.scopes)
        for (const std::string& id : identifiersIn(machine, view))
            transactions.push_back(viewOf(machine, view, id));
    std::stable_sort(
        transactions.begin(), transactions.end(),
        [](const TransactionView& one, const TransactionView& other) { return one.id < other.id; });
    return transactions;
}

} // namespace maintenance::kit
