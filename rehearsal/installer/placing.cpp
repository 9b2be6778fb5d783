#include "installer/placing.h"

#include "common/receipts.h"
#include "common/text.h"
#include "installer/failure.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

struct stat statusOf(const std::string& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0)
        failed("Cannot examine " + path);
    return status;
}

void own(const std::string& path, const Target& target)
{
    if (::lchown(path.c_str(), target.uid, target.gid) != 0)
        failed("Cannot set the owner of " + path);
}

void placeDirectory(const std::string& source, const std::string& destination, const Target& target)
{
    if (fs::is_directory(destination))
        return;
    if (::mkdir(destination.c_str(), 0700) != 0)
        failed("Cannot make " + destination);
    own(destination, target);
    // Last, because a change of owner may take away set-id bits.
    if (::chmod(destination.c_str(), statusOf(source).st_mode & 07777) != 0)
        failed("Cannot make " + destination);
}

void placeFile(const std::string& source, const std::string& destination, const Target& target)
{
    const std::string fresh = destination + ".installing";
    const struct stat status = statusOf(source);
    ::unlink(fresh.c_str());
    std::error_code error;
    fs::copy(source, fresh, fs::copy_options::copy_symlinks, error);
    if (error)
        throw Failure("Cannot place " + destination + ": " + error.message());
    own(fresh, target);
    if (!S_ISLNK(status.st_mode) && ::chmod(fresh.c_str(), status.st_mode & 07777) != 0) {
        failed("Cannot set the mode of " + destination);
    }
    const timespec times[] = {status.st_atim, status.st_mtim};
    if (::utimensat(AT_FDCWD, fresh.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0 ||
        ::rename(fresh.c_str(), destination.c_str()) != 0) {
        failed("Cannot place " + destination);
    }
}

// Path of an entry relative to the target, whatever the slashes around the location.
std::string relativeTo(const std::string& location, const std::string& path)
{
    const Target nowhere{"/", 0, 0};
    const std::string absolute = nowhere.at(location + "/" + path);
    return absolute.substr(1);
}

std::size_t filesIn(const std::vector<Component>& components)
{
    std::size_t count = 0;
    for (const Component& component : components) {
        count += static_cast<std::size_t>(
            std::count_if(component.paths.begin(), component.paths.end(), [&](const std::string& path) {
                return !S_ISDIR(statusOf(component.payload + "/" + path).st_mode);
            }));
    }
    return count;
}

void makeLocation(const Component& component, const Target& target)
{
    const std::string location = relativeTo(component.location, "");
    for (std::size_t end = 0; end < location.size();) {
        end = std::min(location.find('/', end + 1), location.size());
        const std::string directory = target.at(location.substr(0, end));
        if (fs::is_directory(directory))
            continue;
        if (::mkdir(directory.c_str(), 0755) != 0)
            failed("Cannot make " + directory);
        own(directory, target);
    }
}

void removeObsolete(const Component& component, const Target& target, const std::set<std::string>& wanted)
{
    const std::optional<Receipt> old = readReceipt(target.path, component.identifier);
    if (!old)
        return;
    // Backwards, so that a directory comes after what is in it; one that holds something else stays.
    for (auto path = old->paths.rbegin(); path != old->paths.rend(); ++path) {
        const std::string relative = relativeTo(old->location, *path);
        if (wanted.count(relative) != 0)
            continue;
        const std::string absolute = target.at(relative);
        if (::unlink(absolute.c_str()) != 0 && (errno == EISDIR || errno == EPERM))
            ::rmdir(absolute.c_str());
    }
}

} // namespace

void placePayloads(const std::vector<Component>& components, const Target& target, const Switches& switches)
{
    const std::size_t all = filesIn(components);
    const std::size_t limit = switches.stopAtHalf ? all / 2 : switches.stopAfter.value_or(all + 1);
    std::size_t placed = 0;
    std::set<std::string> wanted;
    for (const Component& component : components) {
        if (!component.payload.empty())
            makeLocation(component, target);
        for (const std::string& path : component.paths) {
            const std::string relative = relativeTo(component.location, path);
            const std::string source = component.payload + "/" + path;
            wanted.insert(relative);
            if (switches.skips(relative))
                continue;
            if (S_ISDIR(statusOf(source).st_mode)) {
                placeDirectory(source, target.at(relative), target);
            } else {
                if (placed == limit)
                    throw Failure("The install was stopped half-way.");
                placeFile(source, target.at(relative), target);
                ++placed;
            }
        }
    }
    if (placed == limit)
        throw Failure("The install was stopped half-way.");
    for (const Component& component : components) {
        removeObsolete(component, target, wanted);
    }
}
