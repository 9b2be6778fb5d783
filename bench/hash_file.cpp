// Hashes one file as the program does: hash_file fastest|portable FILE

#include "fs/owned_fd.h"
#include "fs/sha256.h"

#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

int main(int argc, char** argv)
{
    using namespace maintenance;
    if (argc != 3)
        return 64;
    const OwnedFd file(::open(argv[2], O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0)
        return 66;
    if (std::string_view(argv[1]) == "fastest") {
        std::puts(sha256(file.get(), status.st_size).c_str());
        return 0;
    }
    Sha256 hash;
    hash.compress = &compressPortably;
    std::vector<char> chunk(65536);
    for (ssize_t count = 0; (count = ::read(file.get(), chunk.data(), chunk.size())) > 0;)
        hash.feed(chunk.data(), static_cast<std::size_t>(count));
    std::puts(hash.finish().c_str());
    return 0;
}
