#include "kit/machine/ways_out.h"

#include "fs/scope.h"
#include "kit/report/printable.h"
#include "receipts/package_contents.h"
#include "transaction/restoration.h"
#include "validate/owned_path.h"

#include <algorithm>
#include <set>
#include <unistd.h>

namespace maintenance::kit {

namespace {

constexpr const char* onceInstalled = "once the installer has installed the packages";
constexpr const char* installBetween = "install the packages before the last command";
constexpr const char* whileUnchanged = "while no package has been registered or forgotten since";

/// What became of the packages since the transaction was prepared.
enum class Packages { Unknown, AsBefore, AsDescribed, Changed };

bool hasRights(const std::vector<std::string>& scopes)
{
    const bool system = std::find(scopes.begin(), scopes.end(), "system") != scopes.end();
    return system ? ::geteuid() == 0 : ::geteuid() != 0;
}

std::string rights(const std::vector<std::string>& scopes)
{
    if (hasRights(scopes))
        return {};
    const bool system = std::find(scopes.begin(), scopes.end(), "system") != scopes.end();
    return system ? "sudo " : "sudo -u '#" + std::to_string(scopeOwner("user")) + "' ";
}

std::string executableOf(const ScopeView& view)
{
    return (std::filesystem::path(view.root) / maintenanceExecutable).native();
}

/// The tool in the command's own scope, or else wherever it is.
std::string executableFor(const MachineView& machine, const std::string& scope)
{
    const ScopeView& own = machine.scopes.at(scope);
    const ScopeView& other = machine.scopes.at(oppositeScope(scope));
    return executableOf(own.hasTool || !other.hasTool ? own : other);
}

/// Tells whether every package of the descriptor is registered with exactly its version and files.
bool isRegisteredAsDescribed(const MachineView& machine, const Descriptor& descriptor)
{
    const auto& registered = machine.registrations.at(descriptor.targetScope).packages;
    for (const auto& [packageId, content] : packageContents(descriptor)) {
        const auto found = registered.find(packageId);
        if (found == registered.end() || found->second.version != content.version)
            return false;
        const std::set<std::string> paths(found->second.paths.begin(), found->second.paths.end());
        if (paths.size() != content.files.size() ||
            !std::all_of(paths.begin(), paths.end(), [&, &files = content.files](const std::string& path) {
                return files.contains(path);
            }))
            return false;
    }
    return true;
}

Packages packagesSince(const MachineView& machine, const Descriptor* descriptor)
{
    if (descriptor == nullptr)
        return Packages::Unknown;
    try {
        if (registrationsUnchanged(*descriptor))
            return Packages::AsBefore;
        return isRegisteredAsDescribed(machine, *descriptor) ? Packages::AsDescribed : Packages::Changed;
    } catch (const std::exception&) {
        // The snapshot may be out of this account's reach; the commands say for themselves what they find.
        return Packages::Unknown;
    }
}

/// Tells whether a product is installed in another version than the one from which the descriptor starts.
bool startsFromAnother(const MachineView& machine, const Descriptor& descriptor)
{
    FindingList ignored;
    const auto installed =
        registeredProducts(machine.registrations.at(descriptor.targetScope), descriptor.targetScope, ignored);
    return std::any_of(descriptor.products.begin(), descriptor.products.end(), [&](const Product& product) {
        const auto found = installed.find(product.id);
        return product.sourceVersion != "-" && found != installed.end() &&
               found->second != product.sourceVersion;
    });
}

/// Tells whether a descriptor was made when one of its products was not there, so that packages which are
/// registered as it lists them have come since.
bool isFirstInstallation(const Descriptor& descriptor)
{
    return std::any_of(descriptor.products.begin(), descriptor.products.end(),
                       [](const Product& product) { return product.sourceVersion == "-"; });
}

/// An uninstallation and a repair of what is installed look alike on disk.
bool mayBeUninstallation(const TransactionView& transaction, const Descriptor* descriptor)
{
    return !transaction.pending && transaction.source == "none" && !transaction.id.starts_with("install-") &&
           (descriptor == nullptr || descriptor->decision == "none");
}

/// begin-install as a shell takes it; it finds the attempt and prints the same identifier.
std::string beginCommand(const MachineView& machine, const std::string& scope)
{
    return rights({scope}) + shellQuoted(executableFor(machine, scope)) + " begin-install " + scope;
}

/// Builds the ways out of one transaction.
class WayFinder {
public:
    WayFinder(const MachineView& machine, TransactionView& transaction)
        : machine_(machine), transaction_(transaction)
    {
    }

    void add(const char* effect, const std::string& condition, const std::vector<std::string>& commands)
    {
        std::vector<std::string> scopes = {transaction_.target};
        if (transaction_.source != "none")
            scopes.push_back(transaction_.source);
        WayOut way{effect, condition, {}};
        for (const std::string& command : commands)
            way.commands.push_back(
                toolCommand(machine_, scopes, command, transaction_.target, transaction_.id));
        transaction_.waysOut.push_back(std::move(way));
    }

    /// The same, after begin-install where the descriptor has to be written again.
    void addAfterBeginning(bool again, const char* effect, const std::string& condition,
                           const std::vector<std::string>& commands)
    {
        add(effect, condition, commands);
        if (!again)
            return;
        std::vector<std::string>& told = transaction_.waysOut.back().commands;
        told.insert(told.begin(), beginCommand(machine_, transaction_.target));
    }

    void note(const std::string& text) { transaction_.notes.push_back(text); }

private:
    const MachineView& machine_;
    TransactionView& transaction_;
};

std::vector<std::string> after(const std::vector<std::string>& first, const std::string& last)
{
    std::vector<std::string> commands = first;
    commands.push_back(last);
    return commands;
}

/// From an attempt of which nothing was prepared.
void addBeginnings(WayFinder& finder, const MachineView& machine, const TransactionView& transaction,
                   const Descriptor* descriptor)
{
    const bool again = descriptor == nullptr;
    if (descriptor != nullptr && startsFromAnother(machine, *descriptor)) {
        const std::string attempt = machine.scopes.at(transaction.target).pendingFile->path;
        finder.note("an installation was begun, and its packages were installed without prepare-move; no "
                    "command acts on it any more. Remove " +
                    shellQuoted(attempt) + ", which keeps nothing, then run the installer again");
        return;
    }
    if (descriptor != nullptr && isFirstInstallation(*descriptor) &&
        isRegisteredAsDescribed(machine, *descriptor)) {
        finder.note("an installation was begun, and its packages were installed without prepare-move");
        finder.add("finish", "", {"prepare-move", "commit-move"});
        return;
    }
    finder.note("an installation was begun and not prepared");
    finder.addAfterBeginning(again, "finish", installBetween, {"prepare-move", "commit-move"});
    finder.addAfterBeginning(again, "undo", "", {"prepare-move", "rollback-move"});
}

/// From Prepared, once the commands in `first` have led there.
void addEndings(WayFinder& finder, const MachineView& machine, const TransactionView& transaction,
                const Descriptor* descriptor, const std::vector<std::string>& first)
{
    const Packages packages = packagesSince(machine, descriptor);
    const bool uninstallation = mayBeUninstallation(transaction, descriptor);
    if (uninstallation)
        finder.add("finish", "if it was begun by uninstall-product", {"uninstall-product"});
    const std::string begun = uninstallation ? "if it was begun by prepare-move, " : "";
    switch (packages) {
    case Packages::AsDescribed:
        finder.note(
            "the packages are registered as the descriptor lists them; the registrations of before are gone, "
            "so it can only be finished");
        finder.add("finish", uninstallation ? "if it was begun by prepare-move" : "",
                   after(first, "commit-move"));
        return;
    case Packages::Changed:
        finder.note(
            "packages were registered or forgotten since it was prepared, and not as the descriptor lists "
            "them; the installation must be finished before it can be committed");
        finder.add("finish", begun + onceInstalled, after(first, "commit-move"));
        return;
    case Packages::AsBefore:
        finder.note("no package has been registered or forgotten since it was prepared");
        finder.add("finish", begun + onceInstalled, after(first, "commit-move"));
        finder.add("undo", "", after(first, "rollback-move"));
        return;
    case Packages::Unknown:
        break;
    }
    finder.add("finish", begun + onceInstalled, after(first, "commit-move"));
    finder.add("undo", whileUnchanged, after(first, "rollback-move"));
}

} // namespace

std::string toolCommand(const MachineView& machine, const std::vector<std::string>& scopes,
                        const std::string& command, const std::string& scope, const std::string& id)
{
    return rights(scopes) + shellQuoted(executableFor(machine, scope)) + " " + command + " " + scope + " " +
           id;
}

void addWaysOut(const MachineView& machine, TransactionView& transaction, const Descriptor* descriptor)
{
    WayFinder finder(machine, transaction);
    if (transaction.state == TransactionState::Contradictory) {
        finder.note(
            "its files contradict each other; no command acts on it. Keep everything and ask its maker");
        return;
    }
    if (transaction.target.empty())
        return;
    switch (transaction.state) {
    case TransactionState::Absent:
        if (transaction.pending)
            addBeginnings(finder, machine, transaction, descriptor);
        return;
    case TransactionState::Creating:
        finder.note("it was interrupted before it changed anything");
        if (mayBeUninstallation(transaction, descriptor))
            finder.add("finish", "if it was begun by uninstall-product", {"uninstall-product"});
        finder.add("finish", installBetween, {"prepare-move", "commit-move"});
        finder.add("undo", "", {"prepare-move", "rollback-move"});
        return;
    case TransactionState::LeasesIncomplete:
        addEndings(finder, machine, transaction, descriptor, {"prepare-move"});
        return;
    case TransactionState::Prepared:
        addEndings(finder, machine, transaction, descriptor, {});
        return;
    case TransactionState::Abandoned:
        finder.note(transaction.pending
                        ? "a commit failed and put everything back; its attempt keeps every other installer "
                          "out until it is finished or undone"
                        : "a commit failed, put everything back and blocks nothing; its copies are still "
                          "there");
        finder.add("finish", installBetween, {"prepare-move", "commit-move"});
        finder.add("undo", whileUnchanged, {"prepare-move", "rollback-move"});
        return;
    case TransactionState::CleanUpPending:
        finder.note("it is done; only what it kept on disk is left");
        finder.add("finish", "", {"commit-move"});
        return;
    case TransactionState::InProgress:
        finder.note("a run holds the lock of its scope; wait for it to end, then ask again");
        return;
    default:
        return;
    }
}

} // namespace maintenance::kit
