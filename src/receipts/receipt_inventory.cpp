#include "receipts/receipt_inventory.h"

#include "fs/existence.h"
#include "fs/fixed_file.h"
#include "fs/held_locks.h"
#include "fs/scope.h"
#include "fs/sha256.h"
#include "receipts/pkgutil.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/owned_path.h"
#include "validate/text_fields.h"

#include <algorithm>
#include <fcntl.h>
#include <optional>

namespace maintenance {

namespace {

constexpr const char* makersPattern = "--pkgs=^com\\.tamarindpelican\\.pkg\\.";

[[noreturn]] void refuseListing()
{
    throw Invalid("pkgutil cannot enumerate authoritative package receipts");
}

PkgutilResult askVolume(const std::string& volume, const std::vector<std::string>& request)
{
    std::vector<std::string> arguments = {"--volume", volume};
    arguments.insert(arguments.end(), request.begin(), request.end());
    return pkgutil(arguments);
}

std::vector<std::string> nonEmptyLines(const std::string& output)
{
    std::vector<std::string> lines;
    for (const std::string_view line : splitLines(output))
        if (!line.empty())
            lines.emplace_back(line);
    return lines;
}

bool listsSomething(const PkgutilResult& listing)
{
    return listing.status == 0 && !nonEmptyLines(listing.output).empty();
}

bool isSilent(const PkgutilResult& listing)
{
    return listing.output.empty() && (listing.status == 0 || listing.status == 1);
}

/// Tells whether a listing was not cut off in the middle of a line.
bool isWhole(const PkgutilResult& listing) { return listing.output.ends_with('\n'); }

/// Lists the maker's packages without the pattern, which finds nothing where a pattern has to match the
/// whole identifier. Silence proves nothing, so an empty home is believed only while the database can be
/// seen to answer for "/", which always holds the operating system's own receipts.
std::vector<std::string> listWithoutPattern(const std::string& volume)
{
    const PkgutilResult listing = askVolume(volume, {"--pkgs"});
    if (listsSomething(listing) && isWhole(listing)) {
        std::vector<std::string> identifiers = nonEmptyLines(listing.output);
        std::erase_if(identifiers, [](const std::string& id) { return !id.starts_with(packageIdPrefix); });
        return identifiers;
    }
    if (isSilent(listing) && volume != "/" && listsSomething(askVolume("/", {"--pkgs"})))
        return {};
    refuseListing();
}

/// Returns the identifiers of the maker's packages on a volume, in output order.
std::vector<std::string> listPackages(const std::string& volume)
{
    const PkgutilResult listing = askVolume(volume, {makersPattern});
    std::vector<std::string> identifiers;
    if (listing.status == 0)
        identifiers = nonEmptyLines(listing.output);
    else if (listing.status == 1 && listing.output.empty())
        identifiers = listWithoutPattern(volume);
    else
        refuseListing();
    for (const std::string& id : identifiers)
        if (!safePackageId(id))
            throw Invalid("pkgutil returned an unexpected package identity");
    return identifiers;
}

/// Returns the version from a package's description, when the package is installed at the volume root.
std::string readVersion(const std::string& description)
{
    constexpr std::string_view versionKey = "version: ";
    constexpr std::string_view locationKey = "location: ";
    std::string version;
    std::string location;
    for (const std::string_view line : splitLines(description)) {
        if (line.starts_with(versionKey))
            version = line.substr(versionKey.size());
        else if (line.starts_with(locationKey))
            location = line.substr(locationKey.size());
    }
    const bool atRoot = location.empty() || location == "." || location == "/";
    if (!safeVersion(version) || !atRoot)
        throw Invalid("pkgutil receipt metadata is outside the fixed install root");
    return version;
}

/// The directory of the file that was hashed last; the next one mostly lies in it as well.
struct LastDirectory {
    std::string path;
    OwnedFd descriptor;
};

/// Opens the directory `path`, or takes the one that is open. A directory that was exchanged since does not
/// hold the file that was examined, and is found out by that.
int openListedDirectory(LastDirectory& last, std::string path)
{
    if (!last.descriptor || last.path != path) {
        last.descriptor = OwnedFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        last.path = std::move(path);
    }
    return last.descriptor.get();
}

/// Hashes the file that was examined at `path`; links in the directories above it are followed, as the
/// package database itself does.
std::string hashListedFile(const std::filesystem::path& path, const struct stat& examined,
                           LastDirectory& last)
{
    // An exchange in the directories above cannot make this open a device, which may act on being opened.
    int directory = openListedDirectory(last, path.parent_path().native());
    std::string name = path.filename().native();
    if (directory < 0 && errno == EACCES) {
        // Never root's case: an account may reach files in a directory that it cannot list.
        directory = AT_FDCWD;
        name = path.native();
    }
    struct stat named = {};
    if ((directory < 0 && directory != AT_FDCWD) ||
        ::fstatat(directory, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0)
        throw Invalid("cannot read an owned file");
    if (!S_ISREG(named.st_mode) && !S_ISLNK(named.st_mode))
        throw Invalid("pkgutil receipt-owned file changed during validation");
    OwnedFd file(::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file)
        throw Invalid("cannot read an owned file");
    struct stat opened = {};
    const bool known = ::fstat(file.get(), &opened) == 0;
    if (known && isHeldLock(opened)) {
        (void)file.release();
        throw Invalid("pkgutil receipt inventory contains a link or foreign file");
    }
    if (!known || !sameFile(opened, examined) || opened.st_nlink != 1)
        throw Invalid("pkgutil receipt-owned file changed during validation");
    return sha256(file.get(), examined.st_size);
}

/// The paths that a package lists, and the volume that they are relative to.
struct Listing {
    std::string root;
    bool verify;
    /// In output order.
    std::vector<std::string> paths;
    /// The same in byte order, to find what lies below a path.
    std::vector<std::string> sorted;
};

Listing readListing(const std::string& root, bool verify, const std::string& output)
{
    Listing listing{root, verify, nonEmptyLines(output), {}};
    std::erase(listing.paths, ".");
    listing.sorted = listing.paths;
    std::sort(listing.sorted.begin(), listing.sorted.end());
    return listing;
}

bool hasPathsBelow(const Listing& listing, const std::string& path)
{
    const std::string prefix = path + "/";
    const auto next = std::lower_bound(listing.sorted.begin(), listing.sorted.end(), prefix);
    return next != listing.sorted.end() && next->starts_with(prefix);
}

/// Records a listed path that does not exist; nothing when it was a directory or cannot be owned.
std::optional<ReceiptFile> recordMissing(const Listing& listing, const std::string& path)
{
    if (listing.verify)
        throw Invalid("pkgutil receipt-owned file is missing");
    if (hasPathsBelow(listing, path))
        return std::nullopt;
    try {
        return ReceiptFile{safeRelative(path), {}};
    } catch (const Invalid&) {
        return std::nullopt;
    }
}

/// Examines a listed path. With verification whatever cannot be examined counts as missing, which ends the
/// inventory; without it only absence does, so that an unreadable disk never passes for a removed file.
std::optional<struct stat> examineListed(const std::filesystem::path& path, bool verify)
{
    struct stat status = {};
    if (verify)
        return ::lstat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
    return linkStatus(path);
}

/// Records one listed path; nothing when it is, or was, a directory.
std::optional<ReceiptFile> recordListed(const Listing& listing, const std::string& line, LastDirectory& last)
{
    const std::filesystem::path path = std::filesystem::path(listing.root) / safeLexicalRelative(line);
    const auto status = examineListed(path, listing.verify);
    if (!status)
        return recordMissing(listing, line);
    if (S_ISDIR(status->st_mode))
        return std::nullopt;
    ReceiptFile file{safeRelative(line), {}};
    if (!S_ISREG(status->st_mode) || status->st_nlink != 1)
        throw Invalid("pkgutil receipt inventory contains a link or foreign file");
    if (listing.verify)
        file.sha256 = hashListedFile(path, *status, last);
    return file;
}

std::string identityText(const Receipt& receipt)
{
    std::string text = "pkgutil=" + receipt.packageId + "\nversion=" + receipt.version + "\n";
    for (const ReceiptFile& file : receipt.files)
        text += "file=" + file.path + "\n";
    return text;
}

Receipt readReceipt(const std::string& volume, const std::string& packageId, bool verify)
{
    const PkgutilResult description = askVolume(volume, {"--pkg-info", packageId});
    const PkgutilResult files = askVolume(volume, {"--files", packageId});
    if (description.status != 0 || files.status != 0)
        throw Invalid("pkgutil receipt evidence is incomplete");

    Receipt receipt{packageId, readVersion(description.output), {}, {}};
    const Listing listing = readListing(volume, verify, files.output);
    LastDirectory last;
    for (const std::string& line : listing.paths)
        if (auto file = recordListed(listing, line, last))
            receipt.files.push_back(std::move(*file));
    if (receipt.files.empty())
        throw Invalid("pkgutil receipt has no installed regular files");
    receipt.text = identityText(receipt);
    return receipt;
}

} // namespace

ReceiptInventory pkgutilReceipts(const std::string& scope, bool verify)
{
    const std::string volume = scopeRoot(scope);
    ReceiptInventory inventory;
    for (const std::string& packageId : listPackages(volume))
        inventory.emplace(packageId, readReceipt(volume, packageId, verify));
    return inventory;
}

std::set<std::string> pathsOfOthers(const ReceiptInventory& inventory, const std::set<std::string>& packages)
{
    std::set<std::string> paths;
    for (const auto& [packageId, receipt] : inventory)
        if (!packages.contains(packageId))
            for (const ReceiptFile& file : receipt.files)
                paths.insert(file.path);
    return paths;
}

} // namespace maintenance
