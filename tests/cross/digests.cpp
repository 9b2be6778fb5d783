// Prints a digest of contents of many lengths by each implementation of SHA-256 that this processor has.

#include "fs/sha256.h"

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

int main()
{
    using namespace maintenance;
    std::vector<std::pair<const char*, Sha256Compression>> found = {{"portable", compressPortably}};
    if (const Sha256Compression x86 = x86Compression())
        found.emplace_back("x86", x86);
    if (const Sha256Compression arm = armCompression())
        found.emplace_back("arm", arm);
    std::string content;
    std::uint32_t state = 1;
    while (content.size() < 100003) {
        state = state * 1664525 + 1013904223;
        content += static_cast<char>(state >> 24);
    }
    std::vector<std::size_t> lengths = {1000, 16384, 65537, 100000};
    for (std::size_t length = 0; length <= 200; ++length)
        lengths.push_back(length);
    for (const auto& [name, compress] : found)
        for (const std::size_t length : lengths)
            for (const unsigned offset : {0U, 3U}) {
                Sha256 hash;
                hash.compress = compress;
                hash.feed(content.data() + offset, length);
                std::printf("%s %zu %u %s\n", name, length, offset, hash.finish().c_str());
            }
    std::printf("chosen %s\n", fastestCompression() == found.back().second ? found.back().first : "another");
    return 0;
}
