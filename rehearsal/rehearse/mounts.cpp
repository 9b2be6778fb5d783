#include "rehearse/mounts.h"

#include "common/files.h"
#include "rehearse/failure.h"
#include "rehearse/host.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

// The root never shows the machine's /run, so it is the one place where the memory file system hides nothing
// that is still needed.
const std::string memory = "/run";

void makeDirectory(const std::string& path, mode_t mode)
{
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST)
        refused("cannot make " + path);
    if (::chmod(path.c_str(), mode) != 0)
        refused("cannot set the mode of " + path);
}

void mountOn(const std::string& source, const std::string& target, const char* type, unsigned long flags,
             const std::string& data, const std::string& step)
{
    if (::mount(source.c_str(), target.c_str(), type, flags, data.c_str()) != 0)
        refused(step);
}

// In a user namespace all owners without an id there look like this one, and most of them are root.
constexpr unsigned unknownId = 65534;

void makeAlike(const std::string& path, const std::string& model)
{
    struct stat status {};
    const bool known = ::stat(model.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    makeDirectory(path, 0755);
    if (!known)
        return;
    const uid_t uid = status.st_uid == unknownId ? 0 : status.st_uid;
    const gid_t gid = status.st_gid == unknownId ? 0 : status.st_gid;
    if (::chown(path.c_str(), uid, gid) != 0)
        refused("cannot set the owner of " + path);
    makeDirectory(path, status.st_mode & 07777);
}

void addLayer(Root& root, const std::string& path)
{
    const std::string place = memory + "/layers/" + std::to_string(root.layers.size());
    makeDirectory(place, 0700);
    makeDirectory(place + "/work", 0700);
    makeAlike(place + "/upper", path);
    root.layers.push_back({path, place + "/upper"});
}

bool isWithin(const std::string& path, const std::string& directory)
{
    return path == directory || path.starts_with(directory + "/");
}

// The innermost layer is the last one: layers are in the order of their mounts, parents first.
const Layer* layerOf(const Root& root, const std::string& path)
{
    const auto found = std::find_if(root.layers.rbegin(), root.layers.rend(),
                                    [&](const Layer& layer) { return isWithin(path, layer.path); });
    return found == root.layers.rend() ? nullptr : &*found;
}

void cover(const Root& root, const Layer& layer)
{
    // Descriptors keep commas and colons in a path from being read as separators of the mount options.
    const OwnedFd lower(::open(layer.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!lower)
        refused("cannot open " + layer.path);
    const std::string place = layer.upper.substr(0, layer.upper.rfind('/'));
    const std::string data = "lowerdir=/proc/self/fd/" + std::to_string(lower.get()) + ",upperdir=" + place +
                             "/upper,workdir=" + place + "/work" + (root.userNamespace ? ",userxattr" : "");
    const std::string target = root.top + layer.path;
    // One device number for files and directories alike, as on any plain file system; not every pair of file
    // systems can do that.
    if (::mount("rehearsal", target.c_str(), "overlay", 0, (data + ",xino=on").c_str()) == 0)
        return;
    if (::mount("rehearsal", target.c_str(), "overlay", 0, data.c_str()) == 0)
        return;
    // The kernel allows two overlays on top of each other, and says no more than this about a third.
    refused("cannot lay an overlay over " + layer.path +
            (errno == EINVAL ? " (which may be one of overlays already, or hide a mount)" : ""));
}

// Only what the root itself writes to has to be covered; the rest may as well be shown read-only.
bool isNeeded(const Layer& layer)
{
    constexpr std::string_view needed[] = {"/etc", "/usr", "/var", "/tmp"};
    return std::find(std::begin(needed), std::end(needed), layer.path) != std::end(needed);
}

void showReadOnly(const Root& root, const Layer& layer)
{
    const std::string target = root.top + layer.path;
    mountOn(layer.path, target, nullptr, MS_BIND | MS_REC, "", "cannot show " + layer.path);
    mount_attr attributes{};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    if (::syscall(SYS_mount_setattr, AT_FDCWD, target.c_str(), AT_RECURSIVE, &attributes,
                  sizeof attributes) != 0) {
        refused("cannot make " + layer.path + " read-only");
    }
}

void coverAll(const Root& root)
{
    std::string shown; // the last directory that is shown with everything mounted in it
    for (const Layer& layer : root.layers) {
        if (!shown.empty() && isWithin(layer.path, shown))
            continue;
        try {
            cover(root, layer);
        } catch (const Failure&) {
            if (isNeeded(layer))
                throw;
            showReadOnly(root, layer);
            shown = layer.path;
        }
    }
}

void mountSystem(const Root& root)
{
    for (const char* name : {"/dev", "/sys"}) {
        mountOn(name, root.top + name, nullptr, MS_BIND | MS_REC, "", std::string("cannot show ") + name);
    }
    mountOn("proc", root.top + "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, "", "cannot mount /proc");
    struct stat status {};
    if (::stat((root.top + "/dev/shm").c_str(), &status) != 0)
        return;
    makeDirectory(memory + "/shm", 01777);
    mountOn(memory + "/shm", root.top + "/dev/shm", nullptr, MS_BIND, "", "cannot mount /dev/shm");
}

void mountShares(const Root& root, const std::vector<std::string>& shares)
{
    for (const std::string& share : shares) {
        std::error_code ignored; // the mount below says what is wrong
        std::filesystem::create_directories(root.top + share, ignored);
        mountOn(share, root.top + share, nullptr, MS_BIND | MS_REC, "", "cannot share " + share);
    }
}

void separateDevices(const Root& root, const std::string& size)
{
    makeDirectory(memory + "/data", 0755);
    mountOn("rehearsal", memory + "/data", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=" + size,
            "cannot mount a memory file system");
    for (const char* name : {"/Library", "/Users"}) {
        makeDirectory(memory + "/data" + name, 0755);
        mountOn(memory + "/data" + name, root.top + name, nullptr, MS_BIND, "",
                std::string("cannot mount ") + name);
    }
}

} // namespace

Root prepareRoot(const Options& options, bool userNamespace)
{
    if (::mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        refused("cannot make the mounts private");
    const std::vector<TopEntry> entries = topEntries();
    const std::vector<std::string> deep = deepMounts();
    mountOn("rehearsal", memory, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=" + options.size,
            "cannot mount a memory file system");

    Root root{memory + "/root", {}, userNamespace};
    makeDirectory(root.top, 0755);
    makeDirectory(memory + "/layers", 0700);
    // Entering needs a mount point, and it must be one before anything is mounted in it.
    mountOn(root.top, root.top, nullptr, MS_BIND, "", "cannot mount the root");
    for (const char* name : {"/dev", "/proc", "/run", "/sys", "/Library", "/Users"}) {
        makeDirectory(root.top + name, 0755);
    }
    if (options.ownDevices)
        separateDevices(root, options.size);
    for (const TopEntry& entry : entries) {
        const std::string path = "/" + entry.name;
        if (!entry.target.empty()) {
            if (::symlink(entry.target.c_str(), (root.top + path).c_str()) != 0)
                refused("cannot link " + path);
            continue;
        }
        makeAlike(root.top + path, path);
        std::error_code unreadable;
        if (!std::filesystem::is_empty(path, unreadable))
            addLayer(root, path);
    }
    for (const std::string& path : deep) {
        addLayer(root, path);
    }
    return root;
}

std::string placeFor(const Root& root, const std::string& path)
{
    const std::filesystem::path wanted(path);
    const std::string parent = std::filesystem::weakly_canonical(wanted.parent_path()).string();
    // What the root makes itself has nothing to do with directories of the machine that are called the same.
    const bool own = path.starts_with("/Users") || path.starts_with("/Library") || path.starts_with("/run");
    const Layer* layer = own ? nullptr : layerOf(root, parent);
    const std::string place = layer != nullptr ? layer->upper : root.top;
    const std::string directory = own ? wanted.parent_path().string() : parent;
    for (std::size_t end = layer != nullptr ? layer->path.size() : 0;
         end < directory.size() && directory != "/";) {
        end = std::min(directory.find('/', end + 1), directory.size());
        const std::string step = directory.substr(0, end);
        const std::string target = place + step.substr(layer != nullptr ? layer->path.size() : 0);
        struct stat status {};
        if (::lstat(target.c_str(), &status) != 0)
            makeAlike(target, own ? "" : step);
    }
    return place + directory.substr(layer != nullptr ? layer->path.size() : 0) + "/" +
           wanted.filename().string();
}

void enterRoot(const Root& root, const Options& options)
{
    coverAll(root);
    mountSystem(root);
    mountShares(root, options.shares);
    if (::chdir(root.top.c_str()) != 0)
        refused("cannot enter the root");
    // With "." for both, the machine's root ends up on top of the new one and can be taken off by name.
    if (::syscall(SYS_pivot_root, ".", ".") != 0)
        refused("cannot change the root");
    if (::umount2(".", MNT_DETACH) != 0)
        refused("cannot leave the machine's root");
    if (::chdir("/") != 0)
        refused("cannot enter the root");
}
