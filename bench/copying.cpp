// Copies a file in one of the ways that a snapshot could be made, and prints the seconds it took, with and
// without the sync: copying WAY hash|plain CHUNK SOURCE COPY
//   stream  reads, hashes and writes in one pass
//   kernel  copy_file_range, and what it wrote is read again to be hashed
//   share   FICLONE, and the copy is read to be hashed

#include "fs/owned_fd.h"
#include "fs/sha256.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <linux/fs.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using maintenance::OwnedFd;
using maintenance::Sha256;

[[noreturn]] void fail(const char* what)
{
    std::perror(what);
    std::exit(1);
}

struct Job {
    OwnedFd from;
    OwnedFd to;
    bool hashed;
    std::vector<char> chunk;
    Sha256 hash;
};

void stream(Job& job)
{
    for (;;) {
        const ssize_t count = ::read(job.from.get(), job.chunk.data(), job.chunk.size());
        if (count < 0)
            fail("read");
        if (count == 0)
            return;
        const auto size = static_cast<std::size_t>(count);
        if (job.hashed)
            job.hash.feed(job.chunk.data(), size);
        if (::write(job.to.get(), job.chunk.data(), size) != count)
            fail("write");
    }
}

void hashCopy(Job& job, off_t begin, off_t end)
{
    while (begin < end) {
        const ssize_t count = ::pread(job.to.get(), job.chunk.data(), job.chunk.size(), begin);
        if (count <= 0)
            fail("pread");
        job.hash.feed(job.chunk.data(), static_cast<std::size_t>(count));
        begin += count;
    }
}

void copyInKernel(Job& job)
{
    for (off_t done = 0;;) {
        const ssize_t count =
            ::copy_file_range(job.from.get(), nullptr, job.to.get(), nullptr, job.chunk.size(), 0);
        if (count < 0)
            fail("copy_file_range");
        if (count == 0)
            return;
        if (job.hashed)
            hashCopy(job, done, done + count);
        done += count;
    }
}

void share(Job& job)
{
    if (::ioctl(job.to.get(), FICLONE, job.from.get()) != 0)
        fail("FICLONE");
    struct stat status = {};
    if (::fstat(job.to.get(), &status) != 0)
        fail("fstat");
    if (job.hashed)
        hashCopy(job, 0, status.st_size);
}

double secondsSince(std::chrono::steady_clock::time_point begin)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 6)
        return 64;
    const std::string way = argv[1];
    Job job{OwnedFd(::open(argv[4], O_RDONLY | O_CLOEXEC)),
            OwnedFd(::open(argv[5], O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)),
            std::string(argv[2]) == "hash",
            std::vector<char>(static_cast<std::size_t>(std::atol(argv[3]))),
            {}};
    if (!job.from || !job.to)
        fail("open");
    const auto begin = std::chrono::steady_clock::now();
    if (way == "stream")
        stream(job);
    else if (way == "kernel")
        copyInKernel(job);
    else
        share(job);
    const double copied = secondsSince(begin);
    if (::fsync(job.to.get()) != 0)
        fail("fsync");
    std::printf("%.6f %.6f %s\n", copied, secondsSince(begin), job.hash.finish().c_str());
    return 0;
}
