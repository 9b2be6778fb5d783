#include "kit/machine/audit.h"

#include "fs/fixed_directory.h"
#include "fs/fixed_file.h"
#include "fs/scope.h"
#include "fs/sha256.h"
#include "kit/report/printable.h"
#include "kit/report/progress.h"
#include "kit/text/words.h"
#include "validate/identifiers.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <system_error>
#include <unistd.h>

namespace maintenance::kit {

namespace {

constexpr std::size_t hashingChunk = 1U << 20U;

/// A file that somebody says is installed.
struct Claim {
    /// The package that it belongs to, with its version.
    std::string packageId;
    std::string version;
    bool registered = false;
    /// What its content may be; empty when nothing says.
    std::set<std::string> sha256;
};

using Counts = std::map<std::string, std::size_t>;
using Claims = std::map<std::string, Claim>;

/// An audit while it goes on.
struct Auditing {
    std::string root;
    Audit audit;
    Progress* progress = nullptr;
};

Finding about(const std::string& place, std::string rule, std::string message, std::string advice)
{
    return {Finding::Severity::Error, place, 0, {}, std::move(rule), std::move(message), std::move(advice)};
}

std::string absolute(const Auditing& auditing, const std::string& path)
{
    return (std::filesystem::path(auditing.root) / path).native();
}

std::string again(const Claim& claim)
{
    return claim.packageId.empty() ? ""
                                   : "install " + claim.packageId + " " + printable(claim.version) + " again";
}

void note(Auditing& auditing, const std::string& path, const Claim& claim, std::string rule,
          std::string message)
{
    if (!claim.packageId.empty())
        auditing.audit.reinstall.emplace(claim.packageId, claim.version);
    auditing.audit.findings.push_back(
        about(absolute(auditing, path), std::move(rule), std::move(message), again(claim)));
}

/// Hashes an installed file; nothing, with a note, when it cannot be read or changes meanwhile.
std::optional<std::string> hashInstalled(Auditing& auditing, const std::string& path,
                                         const struct stat& examined)
{
    const std::string place = absolute(auditing, path);
    const OwnedFd file(::open(place.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat opened = {};
    if (!file || ::fstat(file.get(), &opened) != 0 || !sameFile(opened, examined)) {
        auditing.audit.unreadable.push_back(place);
        return std::nullopt;
    }
    Sha256 hash;
    std::vector<char> chunk(hashingChunk);
    for (;;) {
        const ssize_t count = ::read(file.get(), chunk.data(), chunk.size());
        if (count < 0) {
            auditing.audit.unreadable.push_back(place);
            return std::nullopt;
        }
        if (count == 0)
            return hash.finish();
        hash.feed(chunk.data(), static_cast<std::size_t>(count));
        auditing.progress->advance(static_cast<std::uint64_t>(count), path);
    }
}

std::string alternatives(const std::set<std::string>& words)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " or ") + word;
    return text;
}

void auditContent(Auditing& auditing, const std::string& path, const Claim& claim, const struct stat& status)
{
    ++auditing.audit.files;
    if (claim.sha256.empty()) {
        ++auditing.audit.unvouched;
        return;
    }
    const auto sha256 = hashInstalled(auditing, path, status);
    if (sha256 && !claim.sha256.contains(*sha256))
        note(auditing, path, claim,
             "the file was changed: SHA-256 " + *sha256 + " instead of " + alternatives(claim.sha256),
             "native package receipt inventory is not exact");
}

/// A rollback brings files back for their owner alone, and in the system scope hosts run as other accounts.
void auditMode(Auditing& auditing, const std::string& path, const Claim& claim, const struct stat& status)
{
    if (auditing.root != "/" || (status.st_mode & S_IROTH) != 0)
        return;
    note(auditing, path, claim,
         "other accounts cannot read the file: mode " + octalMode(status.st_mode & 07777U) +
             ", as after a rollback",
         {});
    auditing.audit.findings.back() = asWarning(auditing.audit.findings.back());
}

void auditFile(Auditing& auditing, const std::string& path, const Claim& claim)
{
    struct stat status = {};
    if (::lstat(absolute(auditing, path).c_str(), &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            note(auditing, path, claim, "the file is missing", "pkgutil receipt-owned file is missing");
        else
            auditing.audit.unreadable.push_back(absolute(auditing, path));
        return;
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) {
        note(auditing, path, claim,
             S_ISREG(status.st_mode) ? "the file has several names (hard links)"
                                     : "a link or something else than a file "
                                       "stands in the file's place",
             "pkgutil receipt inventory contains a link or foreign file");
        return;
    }
    if (!claim.registered)
        note(auditing, path, claim, "the file is there, but no package is registered with it",
             "native package receipt inventory is not exact");
    auditMode(auditing, path, claim, status);
    auditContent(auditing, path, claim, status);
}

/// Tells whether a registered path is, or was, a directory.
bool isDirectory(const Auditing& auditing, const RegisteredPackage& package, const std::string& path)
{
    struct stat status = {};
    if (::lstat(absolute(auditing, path).c_str(), &status) == 0)
        return S_ISDIR(status.st_mode);
    return std::any_of(package.paths.begin(), package.paths.end(),
                       [&](const std::string& other) { return other.starts_with(path + "/"); });
}

void claimRegistered(Auditing& auditing, const Registrations& registrations, Claims& claims)
{
    for (const auto& [packageId, package] : registrations.packages) {
        ++auditing.audit.packages;
        for (const std::string& path : package.paths) {
            if (path == "." || isDirectory(auditing, package, path))
                continue;
            const Claim claim{packageId, package.version, true, {}};
            const PathRefusal refusal = refusalOfOwnedPath(path);
            if (!refusal.message.empty())
                note(auditing, path, claim, "the package lists a file that it may not own: " + refusal.rule,
                     refusal.message);
            else
                claims.emplace(path, claim);
        }
    }
}

/// Adds what the reference says: digests for registered files, and files that should be registered and are
/// not.
void claimListed(const Registrations& registrations, const Reference& reference, Claims& claims,
                 Auditing& auditing)
{
    for (const auto& [path, listed] : reference.files) {
        Claim& claim = claims.emplace(path, Claim{listed.packageId, listed.version, false, {}}).first->second;
        claim.sha256 = listed.sha256;
    }
    for (auto& [path, claim] : claims)
        if (claim.registered && reference.packages.contains(claim.packageId) &&
            !reference.files.contains(path))
            note(auditing, path, claim, "the package is registered with a file that is not listed for it",
                 "native package receipt inventory is not exact");
    for (const auto& [path, listed] : reference.files) {
        const auto package = registrations.packages.find(listed.packageId);
        if (package != registrations.packages.end() && package->second.version != listed.version &&
            auditing.audit.reinstall.emplace(listed.packageId, listed.version).second)
            auditing.audit.findings.push_back(
                about(listed.packageId,
                      "the package is registered at version " + printable(package->second.version) +
                          ", listed at version " + printable(listed.version),
                      "exact native package receipt is missing or has the wrong version",
                      "install " + listed.packageId + " " + printable(listed.version) + " again"));
    }
}

/// The descriptors that completed transactions of a scope were bound to.
std::vector<const Descriptor*> completedDescriptors(const std::map<std::string, ScopeView>& views,
                                                    const std::string& scope)
{
    std::vector<const Descriptor*> descriptors;
    for (const auto& [id, file] : views.at(scope).inbox)
        for (const auto& [authority, view] : views) {
            const auto record = view.completed.find(id);
            if (record != view.completed.end() && record->second.state && file.descriptor &&
                record->second.state->descriptorSha256 == file.descriptor->fileSha256)
                descriptors.push_back(&*file.descriptor);
        }
    return descriptors;
}

std::set<std::string> registeredPaths(const Registrations& registrations)
{
    std::set<std::string> paths;
    for (const auto& [packageId, package] : registrations.packages)
        paths.insert(package.paths.begin(), package.paths.end());
    return paths;
}

std::uint64_t sizeOf(const std::string& path)
{
    std::error_code failure;
    const std::uintmax_t size = std::filesystem::file_size(path, failure);
    return failure ? 0 : size;
}

} // namespace

void Reference::add(const std::string& path, const ListedFile& listed)
{
    packages.insert(listed.packageId);
    files.emplace(path, ExpectedFile{listed.packageId, listed.version, {}})
        .first->second.sha256.insert(listed.sha256);
}

Reference completedReference(const std::map<std::string, ScopeView>& views, const std::string& scope,
                             const Registrations& registrations)
{
    Reference reference;
    Counts timesListed;
    Counts descriptorsOf;
    for (const Descriptor* descriptor : completedDescriptors(views, scope)) {
        std::set<std::string> used;
        for (const auto& [path, listed] : listedFiles(*descriptor)) {
            const auto package = registrations.packages.find(listed.packageId);
            if (package == registrations.packages.end() || package->second.version != listed.version)
                continue;
            used.insert(listed.packageId);
            reference.add(path, listed);
            ++timesListed[path];
        }
        for (const std::string& packageId : used)
            ++descriptorsOf[packageId];
        if (!used.empty())
            reference.origins.push_back(descriptor->id);
    }
    const std::set<std::string> registered = registeredPaths(registrations);
    std::erase_if(reference.files, [&](const auto& file) {
        const auto& [path, expected] = file;
        return !registered.contains(path) && timesListed[path] < descriptorsOf[expected.packageId];
    });
    return reference;
}

Audit auditScope(const std::string& scope, const Registrations& registrations, const Reference& reference,
                 bool showProgress)
{
    Auditing auditing{scopeRoot(scope), {}, nullptr};
    auditing.audit.findings = registrations.findings;
    Claims claims;
    claimRegistered(auditing, registrations, claims);
    claimListed(registrations, reference, claims, auditing);
    std::uint64_t total = 0;
    for (const auto& [path, claim] : claims)
        total += sizeOf(absolute(auditing, path));
    Progress progress(showProgress, "auditing", total);
    auditing.progress = &progress;
    for (const auto& [path, claim] : claims)
        auditFile(auditing, path, claim);
    return std::move(auditing.audit);
}

} // namespace maintenance::kit
