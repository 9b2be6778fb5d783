#include "support/disk.h"

#include "fs/sha256.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace maintenance::rehearsed {

namespace {

namespace fs = std::filesystem;

constexpr mode_t permissionBits = 07777;

void require(bool done, const std::string& what, const fs::path& path)
{
    if (!done)
        throw std::system_error(errno, std::generic_category(), what + " " + path.native());
}

void own(const fs::path& path, Ownership ownership)
{
    const gid_t group = ownership.owner == rootUid ? 0 : staffGid;
    require(::lchown(path.c_str(), ownership.owner, group) == 0, "chown", path);
    require(::chmod(path.c_str(), ownership.mode) == 0, "chmod", path);
}

std::string octal(mode_t mode)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%04o", mode & permissionBits);
    return text.data();
}

std::string typeWord(mode_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFREG:
        return "file";
    case S_IFDIR:
        return "dir";
    case S_IFLNK:
        return "link";
    case S_IFIFO:
        return "pipe";
    case S_IFSOCK:
        return "socket";
    default:
        return "other";
    }
}

std::string describeStatus(const fs::path& path, const struct stat& status)
{
    std::string text = typeWord(status.st_mode) + " " + std::to_string(status.st_uid);
    if (S_ISLNK(status.st_mode))
        return text + " -> " + fs::read_symlink(path).native();
    text += " " + octal(status.st_mode);
    if (!S_ISDIR(status.st_mode) && status.st_nlink != 1)
        text += " " + std::to_string(status.st_nlink) + " links";
    return text;
}

std::string identity(const struct stat& status)
{
    return " inode " + std::to_string(status.st_ino) + " modified " + std::to_string(status.st_mtim.tv_sec) +
           "." + std::to_string(status.st_mtim.tv_nsec);
}

void addToTree(Tree& tree, const fs::path& path, bool exact)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0)
        return;
    std::string& line = tree[path.native()];
    line = describeStatus(path, status);
    if (S_ISREG(status.st_mode)) {
        line += " " + sha256OfText(readFile(path)) + (exact ? identity(status) : "");
    } else if (S_ISDIR(status.st_mode)) {
        for (const std::string& name : namesIn(path))
            addToTree(tree, path / name, exact);
    }
}

Tree take(const std::vector<std::string>& places, bool exact)
{
    Tree tree;
    for (const std::string& place : places)
        addToTree(tree, place, exact);
    return tree;
}

} // namespace

void writeFile(const fs::path& path, std::string_view content, Ownership ownership)
{
    makeDirectories(path.parent_path(), {ownership.owner, 0755});
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    stream.close();
    require(static_cast<bool>(stream), "write", path);
    own(path, ownership);
}

void makeDirectories(const fs::path& path, Ownership ownership)
{
    if (path.empty() || path == "/" || isThere(path))
        return;
    makeDirectories(path.parent_path(), {ownership.owner, 0755});
    require(::mkdir(path.c_str(), 0700) == 0, "mkdir", path);
    own(path, ownership);
}

void makeLink(const fs::path& path, const fs::path& target)
{
    require(::symlink(target.c_str(), path.c_str()) == 0, "symlink", path);
}

void makePipe(const fs::path& path, uid_t owner)
{
    require(::mkfifo(path.c_str(), 0600) == 0, "mkfifo", path);
    own(path, {owner, 0600});
}

void makeSocket(const fs::path& path, uid_t owner)
{
    // The names of sockets are short; a relative one reaches any directory.
    const fs::path back = fs::current_path();
    fs::current_path(path.parent_path());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.filename().native().copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr* plain = static_cast<const sockaddr*>(static_cast<const void*>(&address));
    const bool bound = descriptor >= 0 && ::bind(descriptor, plain, sizeof address) == 0;
    ::close(descriptor);
    fs::current_path(back);
    require(bound, "bind", path);
    own(path, {owner, 0600});
}

void makeHardLink(const fs::path& path, const fs::path& existing)
{
    require(::link(existing.c_str(), path.c_str()) == 0, "link", path);
}

void setMode(const fs::path& path, mode_t mode) { require(::chmod(path.c_str(), mode) == 0, "chmod", path); }

void setOwner(const fs::path& path, uid_t owner)
{
    require(::lchown(path.c_str(), owner, static_cast<gid_t>(-1)) == 0, "chown", path);
}

void removeAll(const fs::path& path) { fs::remove_all(path); }

std::string readFile(const fs::path& path)
{
    std::ifstream stream(path, std::ios::binary);
    require(static_cast<bool>(stream), "read", path);
    return {std::istreambuf_iterator<char>(stream), {}};
}

bool isThere(const fs::path& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

std::string describe(const fs::path& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0)
        return "nothing";
    return describeStatus(path, status);
}

std::vector<std::string> namesIn(const fs::path& directory)
{
    std::vector<std::string> names;
    if (!fs::is_directory(directory))
        return names;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory))
        names.push_back(entry.path().filename().native());
    std::sort(names.begin(), names.end());
    return names;
}

std::string systemSha256(const std::string& text)
{
    const fs::path scratch = "/tmp/text-to-hash";
    writeFile(scratch, text);
    const std::unique_ptr<FILE, int (*)(FILE*)> command(
        ::popen(("/usr/bin/sha256sum " + scratch.native()).c_str(), "r"), &::pclose);
    std::array<char, 65> digest{};
    require(command && std::fread(digest.data(), 1, 64, command.get()) == 64, "hash", scratch);
    return digest.data();
}

const std::vector<std::string>& examinedPlaces()
{
    static const std::vector<std::string> places = {"/Library", "/Users", "/var/db/receipts"};
    return places;
}

Tree takeTree(const std::vector<std::string>& places) { return take(places, false); }

Tree takeExactTree(const std::vector<std::string>& places) { return take(places, true); }

std::string difference(const Tree& before, const Tree& after)
{
    std::string text;
    for (const auto& [path, line] : before) {
        const auto now = after.find(path);
        if (now == after.end())
            text += "- " + path + ": " + line + "\n";
        else if (now->second != line)
            text += "~ " + path + ": " + line + " -> " + now->second + "\n";
    }
    for (const auto& [path, line] : after)
        if (!before.contains(path))
            text += "+ " + path + ": " + line + "\n";
    return text;
}

std::vector<std::string> changedPaths(const Tree& before, const Tree& after)
{
    std::vector<std::string> paths;
    for (const auto& [path, line] : before) {
        const auto now = after.find(path);
        if (now == after.end() || now->second != line)
            paths.push_back(path);
    }
    for (const auto& [path, line] : after)
        if (!before.contains(path))
            paths.push_back(path);
    std::sort(paths.begin(), paths.end());
    return paths;
}

} // namespace maintenance::rehearsed
