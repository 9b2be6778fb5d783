#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

/// Laying out and comparing real files. Everything here works on the disk of the rehearsal root and ends the
/// test with an exception when the disk does not do what it is told.
namespace maintenance::rehearsed {

constexpr uid_t rootUid = 0;
/// The account at the console, whose home is the user scope.
constexpr uid_t playerUid = 501;
constexpr gid_t staffGid = 20;
constexpr const char* playerHome = "/Users/player";

/// Who owns a file and what its mode is.
struct Ownership {
    uid_t owner = rootUid;
    mode_t mode = 0644;
};

/// Writes a file, replacing what is there; missing directories above it are made with mode 0755 and the same
/// owner. Mode and owner are exactly as given, whatever the umask.
void writeFile(const std::filesystem::path& path, std::string_view content, Ownership ownership = {});

/// Makes a directory and the missing ones above it; those that are there are left as they are.
void makeDirectories(const std::filesystem::path& path, Ownership ownership = {rootUid, 0755});

void makeLink(const std::filesystem::path& path, const std::filesystem::path& target);
void makePipe(const std::filesystem::path& path, uid_t owner = rootUid);
void makeSocket(const std::filesystem::path& path, uid_t owner = rootUid);
void makeHardLink(const std::filesystem::path& path, const std::filesystem::path& existing);

void setMode(const std::filesystem::path& path, mode_t mode);
void setOwner(const std::filesystem::path& path, uid_t owner);

/// Removes a file or a whole tree; nothing there is no error.
void removeAll(const std::filesystem::path& path);

std::string readFile(const std::filesystem::path& path);

/// Tells whether anything, also a dangling link, has that name.
bool isThere(const std::filesystem::path& path);

/// One line about what stands at a path, such as "file 501 0600", "dir 0 0755", "link 0 -> /etc", "pipe 501
/// 0600", "file 0 0644 2 links" or "nothing".
std::string describe(const std::filesystem::path& path);

/// The names in a directory, sorted; empty when there is no such directory.
std::vector<std::string> namesIn(const std::filesystem::path& directory);

/// The SHA-256 digest text of a text, by the system's own command and not by the code under test.
std::string systemSha256(const std::string& text);

/// What stood at every path below some places: type, owner, mode, links and content of each.
using Tree = std::map<std::string, std::string>;

/// Both scopes' files and the package database of "/".
const std::vector<std::string>& examinedPlaces();

/// Everything at and below the given places.
Tree takeTree(const std::vector<std::string>& places = examinedPlaces());

/// The same, with the identity and times of every file, so that a rewriting with equal content shows.
Tree takeExactTree(const std::vector<std::string>& places = examinedPlaces());

/// The difference as readable lines ("+ path: what", "- path: what", "~ path: what -> what"); empty when
/// there is none.
std::string difference(const Tree& before, const Tree& after);

/// The paths that were added, changed or removed between two trees.
std::vector<std::string> changedPaths(const Tree& before, const Tree& after);

} // namespace maintenance::rehearsed
