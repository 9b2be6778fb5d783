#include "fs/publish.h"

#include "fs/fixed_directory.h"
#include "fs/leftovers.h"
#include "fs/owner_power.h"
#include "validate/invalid.h"

#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>

namespace maintenance {

namespace {

constexpr mode_t metadataMode = 0600;

bool isChecked(std::string_view relative)
{
    return relative.starts_with(supportDirectory) &&
           relative.substr(supportDirectory.size()).starts_with('/');
}

void requireReplaceable(int directory, const std::string& name, uid_t owner)
{
    struct stat status = {};
    if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return;
        throw Invalid("fixed metadata destination is unsafe");
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != owner)
        throw Invalid("fixed metadata destination is unsafe");
}

OwnedFd createTemporary(int directory, const std::string& name, uid_t owner, Access access)
{
    const int flags = (access == Access::Write ? O_WRONLY : O_RDWR) | O_CREAT | O_EXCL | O_CLOEXEC;
    OwnedFd file(withOwnersPower(directory, owner,
                                 [&] { return ::openat(directory, name.c_str(), flags, metadataMode); }));
    if (!file)
        throw std::runtime_error("cannot create fixed metadata atomically");
    return file;
}

/// Brings the new file from empty to published; `file` is closed before it gets its final name.
void fillAndRename(int directory, OwnedFd file, const std::string& temporary, const std::string& name,
                   uid_t owner, Durability durability, const std::function<void(int)>& write)
{
    assignCreatedOwner(directory, file.get(), owner);
    // The creation mode passes through the umask, which an installer script may have set to anything.
    if (::fchmod(file.get(), metadataMode) != 0)
        throw std::runtime_error("cannot write fixed metadata");
    write(file.get());
    if (!synchronize(file.get(), durability))
        throw std::runtime_error("cannot synchronize fixed metadata");
    file.close();
    if (::renameat(directory, temporary.c_str(), directory, name.c_str()) != 0)
        throw std::runtime_error("cannot publish fixed metadata");
}

/// Writes a file outside both scopes, with mode 0600.
void writeForeign(const std::filesystem::path& path, std::string_view content)
{
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    stream.close();
    if (!stream)
        throw std::runtime_error("cannot write maintenance metadata");
    if (::chmod(path.c_str(), metadataMode) != 0)
        throw std::runtime_error("cannot secure maintenance metadata");
}

} // namespace

void publishAtomically(const FixedPlace& place, Durability durability, const std::function<void(int)>& write,
                       Access access)
{
    const OwnedFd directory =
        openFixedDirectory(place.scope, parentOf(place.relative), true, isChecked(place.relative));
    const std::string name = nameOf(place.relative);
    const uid_t owner = scopeOwner(place.scope);
    requireReplaceable(directory.get(), name, owner);
    if (durability == Durability::Record)
        removeLeftovers(place.scope, directory.get(), name);
    const std::string temporary = temporaryName(name);
    OwnedFd file = createTemporary(directory.get(), temporary, owner, access);
    try {
        fillAndRename(directory.get(), std::move(file), temporary, name, owner, durability, write);
    } catch (...) {
        ::unlinkat(directory.get(), temporary.c_str(), 0);
        throw;
    }
    if (!synchronize(directory.get(), durability))
        throw std::runtime_error("cannot synchronize fixed metadata directory");
}

void atomicWriteFixed(const FixedPlace& place, std::string_view content, Durability durability)
{
    publishAtomically(place, durability, [content](int descriptor) {
        if (!writeAll(descriptor, content))
            throw std::runtime_error("cannot write fixed metadata");
    });
}

void text(const std::filesystem::path& path, std::string_view content, Durability durability)
{
    if (const auto place = fixedLocation(path)) {
        atomicWriteFixed(*place, content, durability);
        return;
    }
    prepareForeignDirectory(path.parent_path());
    const std::filesystem::path fresh = path.native() + ".new";
    try {
        writeForeign(fresh, content);
        std::filesystem::rename(fresh, path);
    } catch (...) {
        ::unlink(fresh.c_str());
        throw;
    }
}

void prepareForeignDirectory(const std::filesystem::path& directory)
{
    std::error_code ignored;
    std::filesystem::create_directories(directory, ignored);
    const bool belongsToTransaction =
        directory.native().find("/Maintenance/Transactions/") != std::string::npos;
    if (belongsToTransaction && ::chmod(directory.c_str(), 0755) != 0)
        throw std::runtime_error("cannot secure transaction directory");
}

bool writeAll(int descriptor, std::string_view content)
{
    while (!content.empty()) {
        const ssize_t count = ::write(descriptor, content.data(), content.size());
        if (count <= 0)
            return false;
        content.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

} // namespace maintenance
