#include "kit/payload/package_file.h"

#include "fs/sha256.h"
#include "kit/payload/archive.h"
#include "kit/payload/entry_rules.h"
#include "kit/payload/package_info.h"
#include "kit/report/failure.h"
#include "kit/report/printable.h"
#include "kit/report/progress.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>

namespace maintenance::kit {

namespace {

constexpr std::size_t largestPackageInfo = 16U << 20U;

/// One component package while its archive is read; its parts come in any order.
struct Component {
    std::optional<PackageInfo> info;
    bool hasPayload = false;
    std::vector<PayloadFile> files;
};

/// What a reading of all archives has found.
struct Reading {
    EntryRules rules;
    FindingList findings;
    Progress* progress;
    /// Bytes of the archives that were read before the current one.
    std::uint64_t readBefore = 0;
};

PayloadEntry::Kind kindOf(archive_entry* entry)
{
    switch (::archive_entry_filetype(entry)) {
    case AE_IFREG:
        return PayloadEntry::Kind::File;
    case AE_IFDIR:
        return PayloadEntry::Kind::Directory;
    case AE_IFLNK:
        return PayloadEntry::Kind::SymbolicLink;
    default:
        return PayloadEntry::Kind::Special;
    }
}

std::string pathOf(archive_entry* entry)
{
    const char* path = ::archive_entry_pathname(entry);
    if (path == nullptr)
        path = ::archive_entry_pathname_utf8(entry);
    return path == nullptr ? std::string() : path;
}

/// Payloads write their paths as "./Library/..."; the receipt does not.
std::string payloadPath(archive_entry* entry)
{
    std::string path = pathOf(entry);
    if (path.starts_with("./"))
        path.erase(0, 2);
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    return path;
}

PayloadEntry entryOf(archive_entry* entry)
{
    const bool linked = ::archive_entry_hardlink(entry) != nullptr || ::archive_entry_nlink(entry) > 1;
    return {payloadPath(entry), kindOf(entry), static_cast<unsigned>(::archive_entry_perm(entry)), linked};
}

void readPayload(Reading& reading, ArchiveReader& package, const std::string& place, Component& component)
{
    component.hasPayload = true;
    ArchiveReader payload = ArchiveReader::openPayload(package, place);
    while (archive_entry* item = payload.next()) {
        const PayloadEntry entry = entryOf(item);
        if (entry.path.empty() || entry.path == ".")
            continue;
        if (!reading.rules.examine(entry, place, reading.findings))
            continue;
        Sha256 hash;
        payload.read([&](std::string_view piece) {
            hash.feed(piece.data(), piece.size());
            reading.progress->reach(reading.readBefore + package.position(), entry.path);
        });
        component.files.push_back({entry.path, hash.finish(), {}});
    }
}

Finding about(const std::string& place, std::string rule, std::string advice, std::string message = {})
{
    return {Finding::Severity::Error, place, 0, {}, std::move(rule), std::move(message), std::move(advice)};
}

void examineInfo(const PackageInfo& info, const std::string& place, FindingList& findings)
{
    if (!info.location.empty() && info.location != "." && info.location != "/")
        findings.push_back(about(place,
                                 "the install location is \"" + printable(info.location) + "\", not \"/\"",
                                 "build it with pkgbuild --install-location /",
                                 "pkgutil receipt metadata is outside the fixed install root"));
    if (info.relocatable)
        findings.push_back(
            about(place, "a bundle is relocatable: the installer may put it where another copy of it lies",
                  "set BundleIsRelocatable to false in the component property list"));
    if (info.versionChecked)
        findings.push_back(asWarning(
            about(place,
                  "a bundle is version-checked: the installer may leave an older file and record the new one",
                  "set BundleIsVersionChecked to false in the component property list")));
}

/// Takes a component over into the payload; one without a payload leaves no receipt and is passed over.
void takeComponent(Reading& reading, const std::string& place, Component& component, Payload& payload)
{
    if (!component.hasPayload)
        return;
    if (!component.info || component.info->packageId.empty()) {
        reading.findings.push_back(about(place, "the package does not say its identifier", "build it again"));
        return;
    }
    examineInfo(*component.info, place, reading.findings);
    payload.packages.push_back({component.info->packageId, component.info->version, place});
    for (PayloadFile& file : component.files) {
        file.packageId = component.info->packageId;
        payload.files.push_back(std::move(file));
    }
}

/// The name of the component that an entry of an archive belongs to; empty in a component package itself.
std::string componentOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

void readPackageFile(Reading& reading, const std::string& file, Payload& payload)
{
    ArchiveReader package = ArchiveReader::openPackage(file);
    std::map<std::string, Component> components;
    const auto placeOf = [&](const std::string& name) { return name.empty() ? file : file + "/" + name; };
    while (archive_entry* item = package.next()) {
        const std::string path = pathOf(item);
        const std::string name = componentOf(path);
        const std::string part = path.substr(name.empty() ? 0 : name.size() + 1);
        if (part == "PackageInfo")
            components[name].info = readPackageInfo(package.readAll(largestPackageInfo));
        else if (part == "Payload" && ::archive_entry_filetype(item) == AE_IFREG)
            readPayload(reading, package, placeOf(name), components[name]);
        // A package that was cut off, or damaged, shows it where it is read to the end.
        package.read([](std::string_view) {});
    }
    if (components.empty())
        throw Failure(Findings, printable(file) + " holds no component package",
                      "name packages made by pkgbuild or productbuild");
    for (auto& [name, component] : components)
        takeComponent(reading, placeOf(name), component, payload);
}

std::uint64_t sizeOf(const std::string& file)
{
    std::error_code failure;
    const std::uintmax_t size = std::filesystem::file_size(file, failure);
    return failure ? 0 : size;
}

} // namespace

Payload readPackageFiles(const std::vector<std::string>& files, bool showProgress)
{
    std::uint64_t total = 0;
    for (const std::string& file : files)
        total += sizeOf(file);
    Progress progress(showProgress, "reading", total);
    Reading reading{{}, {}, &progress};
    Payload payload;
    for (const std::string& file : files) {
        readPackageFile(reading, file, payload);
        reading.readBefore += sizeOf(file);
    }
    payload.findings = std::move(reading.findings);
    std::stable_sort(payload.files.begin(), payload.files.end(),
                     [](const PayloadFile& one, const PayloadFile& other) { return one.path < other.path; });
    return payload;
}

} // namespace maintenance::kit
