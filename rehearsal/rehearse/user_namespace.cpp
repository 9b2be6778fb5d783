#include "rehearse/user_namespace.h"

#include "common/files.h"
#include "common/text.h"
#include "rehearse/failure.h"

#include <array>
#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>

namespace {

constexpr unsigned long highestId = 502;

struct Kind {
    const char* program; // that may write the map for an account without rights
    const char* ranges;  // the file that says which ids such an account may use
    const char* map;     // the map's name in /proc/PID
    unsigned long own;   // id of this account outside
};

bool writeMap(const std::string& path, const std::string& content)
{
    const OwnedFd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return fd && writeAll(fd.get(), content);
}

// Root without the right to mount, as in many containers: every id that exists here keeps its number.
void mapSameIds(pid_t child, const Kind& kind)
{
    const std::optional<std::string> present = readFile(std::string("/proc/self/") + kind.map);
    std::string content;
    for (const std::string& line : lines(present.value_or(""))) {
        std::istringstream fields(line);
        std::string first, outside, count;
        fields >> first >> outside >> count;
        content += first + " " + first + " " + count + "\n";
    }
    if (!writeMap("/proc/" + std::to_string(child) + "/" + kind.map, content)) {
        refused("cannot mount here, nor map ids in a user namespace");
    }
}

void mapRange(pid_t child, const Kind& kind)
{
    const passwd* account = ::getpwuid(::geteuid());
    const std::string name = account != nullptr ? account->pw_name : "";
    for (const std::string& line : lines(readFile(kind.ranges).value_or(""))) {
        const std::vector<std::string> fields = split(line, ':');
        if (fields.size() != 3 || (fields[0] != name && fields[0] != std::to_string(::geteuid())))
            continue;
        if (number(fields[2]).value_or(0) < highestId)
            continue;
        const std::array<std::string, 8> words = {
            kind.program, std::to_string(child), "0", std::to_string(kind.own), "1", "1", fields[1],
            fields[2]};
        std::array<char*, 9> arguments{};
        for (std::size_t i = 0; i < words.size(); ++i) {
            arguments[i] = const_cast<char*>(words[i].c_str());
        }
        pid_t helper = 0;
        int status = 0;
        const int error = ::posix_spawnp(&helper, kind.program, nullptr, nullptr, arguments.data(), environ);
        if (error != 0) {
            errno = error;
            refused(std::string("needs root, or ") + kind.program + " of the package uidmap");
        }
        if (::waitpid(helper, &status, 0) != helper || status != 0) {
            throw Failure(statusCannotEnter, std::string(kind.program) + " failed; run as root instead");
        }
        return;
    }
    throw Failure(statusCannotEnter, "needs root, or a range of at least 502 ids for this account in " +
                                         std::string(kind.ranges));
}

} // namespace

void mapIds(pid_t child)
{
    const Kind kinds[] = {{"newuidmap", "/etc/subuid", "uid_map", ::geteuid()},
                          {"newgidmap", "/etc/subgid", "gid_map", ::getegid()}};
    for (const Kind& kind : kinds) {
        if (::geteuid() == 0) {
            mapSameIds(child, kind);
        } else {
            mapRange(child, kind);
        }
    }
}
