#include "attacker/search.h"

#include <algorithm>
#include <array>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr unsigned char firstSecretByte = 0xF5;

bool fileHoldsSecret(const std::string& path)
{
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    struct stat status = {};
    const bool found =
        ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && holdsSecret(descriptor);
    ::close(descriptor);
    return found;
}

void searchBelow(const std::string& directory, int depth, std::vector<std::string>& found)
{
    constexpr int deepest = 24;
    DIR* stream = depth == deepest ? nullptr : ::opendir(directory.c_str());
    if (stream == nullptr)
        return;
    while (const dirent* entry = ::readdir(stream)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        const std::string path = directory + "/" + name;
        if (entry->d_type == DT_DIR)
            searchBelow(path, depth + 1, found);
        else if (entry->d_type == DT_REG && fileHoldsSecret(path))
            found.push_back(path);
    }
    ::closedir(stream);
}

} // namespace

std::vector<std::string> secretsIn(const std::string& directory)
{
    std::vector<std::string> found;
    searchBelow(directory, 0, found);
    return found;
}

bool holdsSecret(int descriptor)
{
    std::array<unsigned char, 65536> bytes;
    off_t offset = 0;
    for (;;) {
        const ssize_t count = ::pread(descriptor, bytes.data(), bytes.size(), offset);
        if (count <= 0)
            return false;
        if (std::any_of(bytes.begin(), bytes.begin() + count,
                        [](unsigned char byte) { return byte >= firstSecretByte; }))
            return true;
        offset += count;
    }
}

void sayLeak(const std::string& path)
{
    const std::string line = "leak\t" + path + "\n";
    [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, line.data(), line.size());
}
