#include "rehearse/host.h"

#include "common/files.h"
#include "common/text.h"
#include "rehearse/failure.h"

#include <algorithm>
#include <climits>
#include <dirent.h>
#include <memory>
#include <sys/stat.h>

namespace {

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

bool madeByTheRoot(std::string_view name)
{
    constexpr std::string_view made[] = {"dev", "proc", "run", "sys", "Library", "Users"};
    return std::find(std::begin(made), std::end(made), name) != std::end(made);
}

// The list of mounts writes blanks and backslashes in a path as a backslash and three octal digits.
std::string unescaped(std::string_view text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            result +=
                static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + text[i + 3] - '0');
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

bool isDeep(const std::string& path)
{
    const std::size_t slash = path.find('/', 1);
    struct stat status {};
    return slash != std::string::npos && !madeByTheRoot(path.substr(1, slash - 1)) &&
           ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

std::vector<TopEntry> topEntries()
{
    const std::unique_ptr<DIR, CloseDirectory> directory(::opendir("/"));
    if (!directory)
        refused("cannot list /");
    std::vector<TopEntry> entries;
    while (const dirent* entry = ::readdir(directory.get())) {
        const std::string name = entry->d_name;
        const std::string path = "/" + name;
        struct stat status {};
        if (name == "." || name == ".." || madeByTheRoot(name) || ::lstat(path.c_str(), &status) != 0)
            continue;
        if (S_ISLNK(status.st_mode)) {
            char target[PATH_MAX];
            const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
            if (length > 0)
                entries.push_back({name, std::string(target, static_cast<std::size_t>(length))});
        } else if (S_ISDIR(status.st_mode)) {
            entries.push_back({name, ""});
        }
    }
    std::sort(entries.begin(), entries.end(),
              [](const TopEntry& left, const TopEntry& right) { return left.name < right.name; });
    return entries;
}

std::vector<std::string> deepMounts()
{
    const std::optional<std::string> table = readFile("/proc/self/mountinfo");
    if (!table)
        refused("cannot read /proc/self/mountinfo");
    std::vector<std::string> paths;
    for (const std::string& line : lines(*table)) {
        const std::vector<std::string> fields = split(line, ' ');
        if (fields.size() < 5)
            continue;
        const std::string path = unescaped(fields[4]);
        if (isDeep(path) && std::find(paths.begin(), paths.end(), path) == paths.end())
            paths.push_back(path);
    }
    return paths;
}
