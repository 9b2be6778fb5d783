#include "rehearse/furnish.h"

#include "common/receipts.h"
#include "rehearse/accounts.h"
#include "rehearse/failure.h"

#include <climits>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace {

[[noreturn]] void failed(const std::string& what)
{
    throw Failure(statusFailed, what + ": " + std::strerror(errno));
}

void putDirectory(const Root& root, const std::string& path, uid_t uid, gid_t gid, mode_t mode)
{
    const std::string place = placeFor(root, path);
    if (::mkdir(place.c_str(), mode) != 0 && errno != EEXIST)
        failed("cannot make " + path);
    if (::chown(place.c_str(), uid, gid) != 0 || ::chmod(place.c_str(), mode) != 0) {
        failed("cannot set owner and mode of " + path);
    }
}

void putFile(const Root& root, const std::string& path, const std::string& content, mode_t mode)
{
    if (!writeFile(placeFor(root, path), content, mode))
        failed("cannot write " + path);
}

void putProgram(const Root& root, const std::string& path, int source)
{
    struct stat status {};
    const OwnedFd target(
        ::open(placeFor(root, path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755));
    if (!target || ::fstat(source, &status) != 0)
        failed("cannot write " + path);
    off_t offset = 0;
    while (offset < status.st_size) {
        const auto left = static_cast<std::size_t>(status.st_size - offset);
        if (::sendfile(target.get(), source, &offset, left) <= 0)
            failed("cannot write " + path);
    }
}

// On a machine that is itself such a root there may be something to hide, so that every root begins alike.
void hideFile(const Root& root, const std::string& path)
{
    if (::access(path.c_str(), F_OK) != 0)
        return;
    if (::mknod(placeFor(root, path).c_str(), S_IFCHR, 0) != 0)
        failed("cannot hide " + path);
}

void hideContent(const Root& root, const std::string& path)
{
    if (::access(path.c_str(), F_OK) != 0)
        return;
    const char* name = root.userNamespace ? "user.overlay.opaque" : "trusted.overlay.opaque";
    if (::setxattr(placeFor(root, path).c_str(), name, "y", 1, 0) != 0)
        failed("cannot hide the content of " + path);
}

void putHomes(const Root& root)
{
    for (const Account& account : accounts) {
        const std::string home = std::string("/Users/") + account.name;
        putDirectory(root, home, account.uid, staffGroup, 0750);
        putDirectory(root, home + "/Library", account.uid, staffGroup, 0700);
        putDirectory(root, home + "/Library/Application Support", account.uid, staffGroup, 0700);
    }
}

void putAccounts(const Root& root)
{
    const std::optional<std::string> users = readFile("/etc/passwd");
    const std::optional<std::string> groups = readFile("/etc/group");
    if (!users || !groups)
        failed("cannot read the machine's accounts");
    putFile(root, "/etc/passwd", accountTable(*users), 0644);
    putFile(root, "/etc/group", groupTable(*groups), 0644);
}

void putReceipts(const Root& root)
{
    putDirectory(root, receiptDirectory("/"), 0, 0, 0755);
    hideContent(root, receiptDirectory("/"));
    const std::string common = "version=12.7.6\nlocation=/\ninstall-time=1688011857\npath=usr\n";
    putFile(root, receiptPath("/", "com.example.system.core"), common + "path=usr/bin\npath=usr/bin/true\n",
            0644);
    putFile(root, receiptPath("/", "com.example.system.tools"),
            common + "path=usr/sbin\npath=usr/sbin/pkgutil\n", 0644);
}

void putConsole(const Root& root, const std::string& console)
{
    if (console == "absent")
        return;
    const std::string active =
        console == "none" ? "" : "ACTIVE=1\nACTIVE_UID=" + console + "\nSESSIONS=1\nUIDS=" + console + "\n";
    putFile(root, "/run/systemd/seats/seat0", "IS_SEAT0=1\nCAN_TTY=1\nCAN_GRAPHICAL=1\n" + active, 0644);
}

// Where the programs that lie beside this one are put.
constexpr std::pair<const char*, const char*> standInPlaces[] = {
    {"pkgutil", "/usr/sbin/pkgutil"},  {"installer", "/usr/sbin/installer"},
    {"pkgbuild", "/usr/bin/pkgbuild"}, {"productbuild", "/usr/bin/productbuild"},
    {"launchctl", "/bin/launchctl"},   {"osascript", "/usr/bin/osascript"},
    {"sysctl", "/usr/sbin/sysctl"},
};

OwnedFd openStandIn(const std::string& path)
{
    OwnedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        failed("cannot open " + path);
    return fd;
}

} // namespace

StandIns openStandIns()
{
    char path[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
    if (length <= 0)
        failed("cannot tell where this program lies");
    const std::string own(path, static_cast<std::size_t>(length));
    const std::string directory = own.substr(0, own.rfind('/') + 1);
    StandIns standIns;
    for (const auto& [name, place] : standInPlaces)
        standIns.push_back({place, openStandIn(directory + name)});
    return standIns;
}

void furnish(const Root& root, const StandIns& standIns, const std::string& console)
{
    putDirectory(root, "/Library/Application Support", 0, adminGroup, 0755);
    putHomes(root);
    putAccounts(root);
    putReceipts(root);
    putConsole(root, console);
    for (const StandIn& standIn : standIns)
        putProgram(root, standIn.place, standIn.content.get());
    putFile(root, "/var/log/pkgutil-stand-in.log", "", 0666);
    putFile(root, "/var/log/install.log", "", 0666);
    putFile(root, "/var/log/osascript-stand-in.log", "", 0666);
    putFile(root, "/run/pkgutil-stand-in.calls", "", 0666);
    putFile(root, "/run/boot-session", "5A2C9A5E-7D4B-4F0F-9B0A-3D6C1E8F2B71\n", 0644);
    putDirectory(root, "/run/launchd-stand-in", 0, 0, 01777);
    hideFile(root, "/etc/pkgutil-stand-in.conf");
    hideFile(root, "/etc/installer-stand-in.conf");
}
