#include "kit/machine/scope_view.h"

#include "fs/leftovers.h"
#include "fs/scope.h"
#include "inventory/installed_products.h"
#include "kit/report/printable.h"
#include "kit/text/plan_text.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/owned_path.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <functional>
#include <unistd.h>

namespace maintenance::kit {

namespace {

constexpr std::array<const char*, 8> knownEntries = {
    "Inbox",     "Transactions",   "Products",          "NativeReceipts",
    "Completed", "PendingInstall", "ActiveTransaction", "maintenance.lock"};

/// Where the tool has one message for all that can be unsafe.
UnsafeWords always(const std::string& message) { return {message, message, message}; }

/// What it says of its state files.
UnsafeWords stateWords(const std::string& subject)
{
    const std::string owned = subject + " ownership or mode is unsafe";
    return {subject + " is missing or unsafe", owned, owned};
}

/// What it says of files that it only replaces, whatever their mode.
UnsafeWords writtenWords()
{
    constexpr const char* unsafe = "fixed metadata destination is unsafe";
    return {unsafe, unsafe, {}};
}

UnsafeWords preparedWords() { return stateWords("prepared transaction state"); }

/// Reads a file's text with one of the tool's parsers and notes a refusal.
///
/// command  the kit's command that says more of such a file
template <typename Parse>
auto parsed(ScopeView& view, const PlacedFile& file, const Parse& parse, const char* command = "show")
{
    std::optional<decltype(parse(*file.text))> result;
    if (!file.text)
        return result;
    try {
        result = parse(*file.text);
    } catch (const Invalid& error) {
        view.sightings.findings.push_back(
            {Finding::Severity::Error,
             file.path,
             0,
             {},
             "the content is not valid",
             error.what(),
             std::string("tpm-kit ") + command + " " + shellQuoted(file.path) + " says more"});
    }
    return result;
}

/// The same for files that the tool writes and never reads, of which it has no message.
template <typename Parse> auto parsedForOthers(ScopeView& view, const PlacedFile& file, const Parse& parse)
{
    const std::size_t before = view.sightings.findings.size();
    auto result = parsed(view, file, parse);
    for (std::size_t i = before; i < view.sightings.findings.size(); ++i)
        view.sightings.findings[i].message.clear();
    return result;
}

StateFile stateFile(ScopeView& view, PlacedFile file)
{
    auto state = parsed(view, file, [](const std::string& text) { return parsePreparedText(text); });
    return {std::move(file), std::move(state)};
}

std::optional<StateFile> readState(ScopeView& view, const PlacedDirectory& directory, const std::string& name,
                                   const UnsafeWords& words)
{
    auto file = readPlace(directory, name, words, view.sightings);
    if (!file)
        return std::nullopt;
    return stateFile(view, std::move(*file));
}

/// Tells whether an entry is the temporary file of a run that was killed.
bool isTemporary(const std::string& entry)
{
    const std::size_t end = entry.rfind(".new.");
    return end != std::string::npos && end > 0 && isTemporaryNameOf(entry, entry.substr(1, end - 1));
}

/// Goes through a directory of files called NAME + `suffix`; everything else in it is a leftover.
void forEachNamed(ScopeView& view, const PlacedDirectory& directory, const std::string& suffix,
                  const UnsafeWords& words,
                  const std::function<void(const std::string& name, PlacedFile file)>& take)
{
    for (const std::string& entry : namesAt(directory, view.sightings)) {
        const std::string name = entry.ends_with(suffix) ? entry.substr(0, entry.size() - suffix.size()) : "";
        if (!safeId(name)) {
            view.leftovers.push_back(directory.path + "/" + entry);
            continue;
        }
        if (auto file = readPlace(directory, entry, words, view.sightings))
            take(name, std::move(*file));
    }
}

void readInbox(ScopeView& view, const PlacedDirectory& maintenance)
{
    const PlacedDirectory inbox = openPlace(maintenance, "Inbox", view.sightings);
    constexpr const char* owned = "maintenance descriptor permissions are unsafe";
    const UnsafeWords words{"maintenance descriptor is missing or unsafe", owned, owned};
    forEachNamed(view, inbox, ".tpmt", words, [&](const std::string& id, PlacedFile file) {
        auto descriptor = parsed(
            view, file, [&](const std::string& text) { return parseDescriptorText(text, view.scope, id); },
            "check");
        view.inbox.emplace(id, DescriptorFile{std::move(file), std::move(descriptor)});
    });
}

void readTransactions(ScopeView& view, const PlacedDirectory& maintenance)
{
    const PlacedDirectory transactions = openPlace(maintenance, "Transactions", view.sightings);
    for (const std::string& id : namesAt(transactions, view.sightings)) {
        if (!safeId(id)) {
            view.leftovers.push_back(transactions.path + "/" + id);
            continue;
        }
        const PlacedDirectory directory = openPlace(transactions, id, view.sightings);
        view.transactions.emplace(
            id, TransactionDirectory{directory.path, static_cast<bool>(directory),
                                     readState(view, directory, "prepared", preparedWords())});
    }
}

void readCompleted(ScopeView& view, const PlacedDirectory& maintenance)
{
    const PlacedDirectory completed = openPlace(maintenance, "Completed", view.sightings);
    forEachNamed(view, completed, ".record", preparedWords(), [&](const std::string& id, PlacedFile file) {
        view.completed.emplace(id, stateFile(view, std::move(file)));
    });
}

void readRecords(ScopeView& view, const PlacedDirectory& maintenance)
{
    const PlacedDirectory products = openPlace(maintenance, "Products", view.sightings);
    forEachNamed(view, products, ".record", writtenWords(), [&](const std::string& product, PlacedFile file) {
        if (const auto record = parsedForOthers(view, file, parseProductRecord))
            view.records.emplace(product, record->version);
    });
}

void readIndex(ScopeView& view, const PlacedDirectory& support)
{
    const auto file = readPlace(support, std::string(indexName), writtenWords(), view.sightings);
    if (!file)
        return;
    const auto indexed = parsedForOthers(view, *file, parseIndex);
    if (!indexed)
        return;
    view.index.emplace();
    for (const IndexedProduct& product : *indexed)
        view.index->emplace(product.id, product.version);
}

void readPendingAttempt(ScopeView& view, const PlacedDirectory& maintenance)
{
    view.pendingFile = readPlace(maintenance, "PendingInstall",
                                 always("pending installation attempt is missing or unsafe"), view.sightings);
    if (view.pendingFile)
        view.pending = parsed(view, *view.pendingFile, parsePending);
}

/// Asks who holds the lock, which takes nobody's lock away: this process holds none.
void readLock(ScopeView& view, const PlacedDirectory& maintenance)
{
    if (!readPlace(maintenance, "maintenance.lock", always("maintenance lock is unsafe"), view.sightings))
        return;
    const OwnedFd file(::openat(maintenance.descriptor.get(), "maintenance.lock",
                                O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct flock question = {};
    question.l_type = F_RDLCK;
    question.l_whence = SEEK_SET;
    if (file && ::fcntl(file.get(), F_GETLK, &question) == 0 && question.l_type != F_UNLCK)
        view.running = question.l_pid;
}

std::string nameInSupport(std::string_view path)
{
    return std::string(path.substr(supportDirectory.size() + 1));
}

/// A rollback puts the tool back without the right to be run.
void noteRightToRun(ScopeView& view, const PlacedFile& tool)
{
    const mode_t mode = tool.status.st_mode;
    if (!S_ISREG(mode) || (mode & S_IXUSR) != 0)
        return;
    view.sightings.findings.push_back(
        {Finding::Severity::Warning,
         tool.path,
         0,
         {},
         "the tool cannot be run: mode " + octalMode(mode & 07777U) + ", as after a rollback",
         {},
         "install com.tamarindpelican.pkg.common again, or chmod 755 " + shellQuoted(tool.path)});
}

/// What the shared package and the installer place beside the metadata. Whoever may write one of the programs
/// runs with the rights of whoever starts it.
void readPrograms(ScopeView& view, const PlacedDirectory& support)
{
    const auto tool = examinePlace(support, nameInSupport(maintenanceExecutable), {}, view.sightings);
    view.hasTool = tool.has_value();
    if (tool)
        noteRightToRun(view, *tool);
    (void)examinePlace(support, nameInSupport(updaterExecutable), {}, view.sightings);
    (void)examinePlace(support, planName, always("embedded transaction plan is missing or unsafe"),
                       view.sightings);
}

void collectLeftovers(ScopeView& view, const PlacedDirectory& support, const PlacedDirectory& maintenance)
{
    for (const std::string& entry : namesAt(maintenance, view.sightings))
        if (std::find(knownEntries.begin(), knownEntries.end(), entry) == knownEntries.end())
            view.leftovers.push_back(maintenance.path + "/" + entry);
    for (const std::string& entry : namesAt(support, view.sightings))
        if (isTemporary(entry))
            view.leftovers.push_back(support.path + "/" + entry);
    // What a run that is going on has made is no leftover.
    if (view.running)
        std::erase_if(view.leftovers,
                      [](const std::string& path) { return isTemporary(path.substr(path.rfind('/') + 1)); });
}

} // namespace

ScopeView readScope(const std::string& scope)
{
    ScopeView view;
    view.scope = scope;
    PlacedDirectory support = openRootPlace(scope, view.sightings);
    view.root = support.path;
    for (const char* name : {"Library", "Application Support", "Tamarind Pelican"})
        support = openPlace(support, name, view.sightings);
    const PlacedDirectory maintenance = openPlace(support, "Maintenance", view.sightings);
    readPrograms(view, support);
    readLock(view, maintenance);
    view.lease = readState(view, maintenance, "ActiveTransaction", stateWords("durable transaction lease"));
    readPendingAttempt(view, maintenance);
    readInbox(view, maintenance);
    readTransactions(view, maintenance);
    readCompleted(view, maintenance);
    readRecords(view, maintenance);
    (void)openPlace(maintenance, "NativeReceipts", view.sightings);
    readIndex(view, support);
    collectLeftovers(view, support, maintenance);
    return view;
}

} // namespace maintenance::kit
