#include "receipts/receipt_snapshot.h"

#include "fs/fixed_file.h"
#include "receipts/receipt_inventory.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/owned_path.h"
#include "validate/text_fields.h"

#include <optional>

namespace maintenance {

namespace {

constexpr std::string_view receiptLinePrefix = "receipt\t";
constexpr std::string_view fileLinePrefix = "file=";
/// Far above what the receipts of a full catalogue need, and far below what would exhaust the memory.
constexpr off_t largestManifest = 64 * largestMetadata;

[[noreturn]] void refuseManifest() { throw Invalid("receipt snapshot manifest is invalid"); }

std::string readSnapshotText(const FixedPlace& place, const std::string& subject)
{
    const std::string missing = subject + " is missing";
    std::optional<ExaminedFile> file;
    try {
        file = regular(place, subject);
    } catch (const Invalid&) {
        throw Invalid(missing);
    }
    if (file->status.st_size > largestManifest)
        refuseManifest();
    return readContent(openExamined(*file, missing, subject + " changed during validation"), subject);
}

std::string readManifest(const FixedPlace& snapshot)
{
    return readSnapshotText(snapshotManifestPlace(snapshot), "receipt snapshot manifest");
}

bool isReceiptLine(std::string_view line) { return line.starts_with(receiptLinePrefix); }

/// A receipt line of a manifest.
struct SnapshotReceipt {
    std::string packageId;
    std::string version;
    std::string serial;
};

SnapshotReceipt readReceiptLine(std::string_view line)
{
    const std::vector<std::string> fields = split(line, '\t');
    if (fields.size() != 4 || !isSerial(fields[3]))
        refuseManifest();
    return {fields[1], fields[2], fields[3]};
}

SnapshotFile readFileLine(std::string_view line)
{
    const std::vector<std::string> fields = split(line, '\t');
    if (fields.size() != 3)
        refuseManifest();
    return {fields[0], fields[1], fields[2]};
}

/// Requires what a file line says to be safe to act on.
void requireSafe(const SnapshotFile& file)
{
    try {
        safeRelative(file.path);
    } catch (const Invalid&) {
        refuseManifest();
    }
    if (!isDigest(file.sha256) || !isSerial(file.serial))
        refuseManifest();
}

/// What a snapshot recorded of one registration.
struct Registration {
    std::string version;
    std::set<std::string> paths;
};

bool operator==(const Registration& one, const Registration& other)
{
    return one.version == other.version && one.paths == other.paths;
}

std::set<std::string> readIdentityPaths(const FixedPlace& place)
{
    std::set<std::string> paths;
    const std::string text = readSnapshotText(place, "receipt identity snapshot");
    for (std::string_view line : splitLines(text)) {
        if (!line.starts_with(fileLinePrefix))
            continue;
        line.remove_prefix(fileLinePrefix.size());
        paths.emplace(line.substr(0, line.find('\t')));
    }
    return paths;
}

std::map<std::string, Registration> recordedRegistrations(const FixedPlace& snapshot)
{
    std::map<std::string, Registration> recorded;
    const std::string manifest = readManifest(snapshot);
    for (const std::string_view line : splitLines(manifest)) {
        if (!isReceiptLine(line))
            continue;
        const SnapshotReceipt receipt = readReceiptLine(line);
        recorded[receipt.packageId] = {receipt.version,
                                       readIdentityPaths(snapshotReceiptPlace(snapshot, receipt.serial))};
    }
    return recorded;
}

Registration liveRegistration(const Receipt& receipt)
{
    Registration registration{receipt.version, {}};
    for (const ReceiptFile& file : receipt.files)
        registration.paths.insert(file.path);
    return registration;
}

} // namespace

FixedPlace snapshotFilesPlace(const FixedPlace& snapshot) { return below(snapshot, "files"); }

FixedPlace snapshotFilePlace(const FixedPlace& snapshot, const std::string& serial)
{
    return below(snapshotFilesPlace(snapshot), serial);
}

FixedPlace snapshotReceiptPlace(const FixedPlace& snapshot, const std::string& serial)
{
    return below(below(snapshot, "receipts"), serial);
}

FixedPlace snapshotManifestPlace(const FixedPlace& snapshot) { return below(snapshot, "manifest"); }

std::map<std::string, std::string> snapshotInventory(const FixedPlace& snapshot)
{
    std::map<std::string, std::string> inventory;
    const std::string manifest = readManifest(snapshot);
    for (const std::string_view line : splitLines(manifest)) {
        if (isReceiptLine(line))
            continue;
        SnapshotFile file = readFileLine(line);
        // An empty digest would later compare with anything.
        if (!isDigest(file.sha256))
            refuseManifest();
        inventory.emplace(std::move(file.path), std::move(file.sha256));
    }
    return inventory;
}

std::vector<SnapshotFile> snapshotManifestFiles(const FixedPlace& snapshot)
{
    std::vector<SnapshotFile> files;
    const std::string manifest = readManifest(snapshot);
    for (const std::string_view line : splitLines(manifest)) {
        if (isReceiptLine(line)) {
            readReceiptLine(line);
            continue;
        }
        files.push_back(readFileLine(line));
        requireSafe(files.back());
    }
    return files;
}

PackageContents snapshotPackages(const FixedPlace& snapshot)
{
    PackageContents packages;
    std::map<std::string, std::string> files;
    const std::string manifest = readManifest(snapshot);
    for (const std::string_view line : splitLines(manifest)) {
        if (isReceiptLine(line)) {
            const SnapshotReceipt receipt = readReceiptLine(line);
            packages[receipt.packageId] = {receipt.version, std::move(files)};
            files.clear();
            continue;
        }
        SnapshotFile file = readFileLine(line);
        requireSafe(file);
        files.emplace(std::move(file.path), std::move(file.sha256));
    }
    return packages;
}

bool isRecordedRegistration(const Receipt& live, const PackageContents& recorded)
{
    const auto package = recorded.find(live.packageId);
    if (package == recorded.end() || package->second.version != live.version)
        return false;
    std::set<std::string> livePaths;
    for (const ReceiptFile& file : live.files)
        livePaths.insert(file.path);
    std::set<std::string> recordedPaths;
    for (const auto& file : package->second.files)
        recordedPaths.insert(file.first);
    return livePaths == recordedPaths;
}

bool registrationsMatchSnapshot(const std::string& scope, const FixedPlace& snapshot,
                                const std::set<std::string>& packages)
{
    const std::map<std::string, Registration> recorded = recordedRegistrations(snapshot);
    const ReceiptInventory live = pkgutilReceipts(scope, false);
    for (const std::string& packageId : packages) {
        const auto then = recorded.find(packageId);
        const auto now = live.find(packageId);
        if ((then == recorded.end()) != (now == live.end()))
            return false;
        if (now != live.end() && !(liveRegistration(now->second) == then->second))
            return false;
    }
    return true;
}

} // namespace maintenance
