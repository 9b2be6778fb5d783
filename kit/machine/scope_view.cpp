#include "kit/machine/scope_view.h"

#include "fs/leftovers.h"
#include "fs/scope.h"
#include "inventory/installed_products.h"
#include "kit/report/printable.h"
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

/// Reads a file's text with one of the tool's parsers and notes a refusal.
template <typename Parse> auto parsed(ScopeView& view, const PlacedFile& file, const Parse& parse)
{
    std::optional<decltype(parse(*file.text))> result;
    if (!file.text)
        return result;
    try {
        result = parse(*file.text);
    } catch (const Invalid& error) {
        view.sightings.findings.push_back({Finding::Severity::Error,
                                           file.path,
                                           0,
                                           {},
                                           "the content is not valid",
                                           error.what(),
                                           "tpm-kit show " + shellQuoted(file.path) + " says more"});
    }
    return result;
}

StateFile stateFile(ScopeView& view, PlacedFile file)
{
    auto state = parsed(view, file, [](const std::string& text) { return parsePreparedText(text); });
    return {std::move(file), std::move(state)};
}

std::optional<StateFile> readState(ScopeView& view, const PlacedDirectory& directory, const std::string& name)
{
    auto file = readPlace(directory, name, view.sightings);
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
                  const std::function<void(const std::string& name, PlacedFile file)>& take)
{
    for (const std::string& entry : namesAt(directory, view.sightings)) {
        const std::string name = entry.ends_with(suffix) ? entry.substr(0, entry.size() - suffix.size()) : "";
        if (!safeId(name)) {
            view.leftovers.push_back(directory.path + "/" + entry);
            continue;
        }
        if (auto file = readPlace(directory, entry, view.sightings))
            take(name, std::move(*file));
    }
}

void readInbox(ScopeView& view, const PlacedDirectory& maintenance)
{
    const PlacedDirectory inbox = openPlace(maintenance, "Inbox", view.sightings);
    forEachNamed(view, inbox, ".tpmt", [&](const std::string& id, PlacedFile file) {
        auto descriptor = parsed(
            view, file, [&](const std::string& text) { return parseDescriptorText(text, view.scope, id); });
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
        view.transactions.emplace(id, TransactionDirectory{directory.path, static_cast<bool>(directory),
                                                           readState(view, directory, "prepared")});
    }
}

void readCompleted(ScopeView& view, const PlacedDirectory& maintenance)
{
    const PlacedDirectory completed = openPlace(maintenance, "Completed", view.sightings);
    forEachNamed(view, completed, ".record", [&](const std::string& id, PlacedFile file) {
        view.completed.emplace(id, stateFile(view, std::move(file)));
    });
}

void readRecords(ScopeView& view, const PlacedDirectory& maintenance)
{
    const PlacedDirectory products = openPlace(maintenance, "Products", view.sightings);
    forEachNamed(view, products, ".record", [&](const std::string& product, PlacedFile file) {
        if (const auto record = parsed(view, file, parseProductRecord))
            view.records.emplace(product, record->version);
    });
}

void readIndex(ScopeView& view, const PlacedDirectory& support)
{
    const auto file = readPlace(support, std::string(indexName), view.sightings);
    if (!file)
        return;
    const auto indexed = parsed(view, *file, parseIndex);
    if (!indexed)
        return;
    view.index.emplace();
    for (const IndexedProduct& product : *indexed)
        view.index->emplace(product.id, product.version);
}

void readPendingAttempt(ScopeView& view, const PlacedDirectory& maintenance)
{
    view.pendingFile = readPlace(maintenance, "PendingInstall", view.sightings);
    if (view.pendingFile)
        view.pending = parsed(view, *view.pendingFile, parsePending);
}

/// Asks who holds the lock, which takes nobody's lock away: this process holds none.
void readLock(ScopeView& view, const PlacedDirectory& maintenance)
{
    if (!readPlace(maintenance, "maintenance.lock", view.sightings))
        return;
    const OwnedFd file(::openat(maintenance.descriptor.get(), "maintenance.lock",
                                O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct flock question = {};
    question.l_type = F_RDLCK;
    question.l_whence = SEEK_SET;
    if (file && ::fcntl(file.get(), F_GETLK, &question) == 0 && question.l_type != F_UNLCK)
        view.running = question.l_pid;
}

/// A rollback puts the tool back without the right to be run.
void readTool(ScopeView& view, const PlacedDirectory& support)
{
    const std::string name(maintenanceExecutable.substr(supportDirectory.size() + 1));
    struct stat status = {};
    view.hasTool =
        support && ::fstatat(support.descriptor.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (!view.hasTool || (status.st_mode & S_IXUSR) != 0)
        return;
    const std::string path = support.path + "/" + name;
    view.sightings.findings.push_back(
        {Finding::Severity::Warning,
         path,
         0,
         {},
         "the tool cannot be run: mode " + octalMode(status.st_mode & 07777U) + ", as after a rollback",
         {},
         "install com.tamarindpelican.pkg.common again, or chmod 755 " + shellQuoted(path)});
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
    readTool(view, support);
    readLock(view, maintenance);
    view.lease = readState(view, maintenance, "ActiveTransaction");
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
