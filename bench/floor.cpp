// The floor: what a command cannot avoid, with the best public library for each piece and nothing of our own.
// Carries out one line of its script after the other:
//   pkgutil TAB ARGUMENT...    runs /usr/sbin/pkgutil with its output on a pipe, and reads all of it
//   hash TAB FILE              reads and hashes the file once (OpenSSL)
//   copy TAB FILE TAB COPY     lets the kernel share or copy the bytes to a new file that is synced, renamed
//   and
//                              synced by its directory
//   write TAB FILE TAB SIZE    the same with a new file of SIZE bytes
//   sync TAB DIRECTORY         synchronises a directory
//   discard TAB DIRECTORY      removes a directory with what is in it

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/fs.h>
#include <memory>
#include <openssl/evp.h>
#include <spawn.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

constexpr std::size_t chunkSize = 131072;
using Words = std::vector<std::string>;

void require(bool done, const char* what)
{
    if (done)
        return;
    std::perror(what);
    std::exit(1);
}

void runPkgutil(const Words& words)
{
    std::array<int, 2> ends{};
    require(::pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
    std::vector<char*> arguments = {const_cast<char*>("/usr/sbin/pkgutil")};
    for (std::size_t i = 1; i < words.size(); ++i)
        arguments.push_back(const_cast<char*>(words[i].c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    pid_t child = -1;
    require(::posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ) == 0,
            "posix_spawn");
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
    static std::array<char, chunkSize> output;
    while (::read(ends[0], output.data(), output.size()) > 0) {
    }
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
}

void hashFile(const std::string& path)
{
    static const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                            &EVP_MD_CTX_free);
    static const std::unique_ptr<EVP_MD, void (*)(EVP_MD*)> algorithm(
        EVP_MD_fetch(nullptr, "SHA256", nullptr), &EVP_MD_free);
    static std::array<char, chunkSize> chunk;
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    require(file >= 0 && EVP_DigestInit_ex2(context.get(), algorithm.get(), nullptr) == 1, "hash");
    ssize_t count = 0;
    while ((count = ::read(file, chunk.data(), chunk.size())) > 0)
        EVP_DigestUpdate(context.get(), chunk.data(), static_cast<std::size_t>(count));
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    EVP_DigestFinal_ex(context.get(), digest.data(), nullptr);
    ::close(file);
}

void syncDirectory(const std::string& path)
{
    const int directory = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(directory >= 0 && ::fsync(directory) == 0, "sync");
    ::close(directory);
}

std::string directoryOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

int createTemporary(const std::string& path)
{
    const int file = ::open((path + ".new").c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    require(file >= 0, "create");
    return file;
}

void publish(int file, const std::string& path)
{
    require(::fsync(file) == 0, "fsync");
    ::close(file);
    require(::rename((path + ".new").c_str(), path.c_str()) == 0, "rename");
    syncDirectory(directoryOf(path));
}

void copyFile(const std::string& from, const std::string& path)
{
    const int source = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    require(source >= 0, "open");
    const int file = createTemporary(path);
    if (::ioctl(file, FICLONE, source) != 0) {
        struct stat status {};
        require(::fstat(source, &status) == 0, "fstat");
        for (off_t left = status.st_size; left > 0;) {
            const ssize_t count =
                ::copy_file_range(source, nullptr, file, nullptr, static_cast<std::size_t>(left), 0);
            require(count > 0, "copy_file_range");
            left -= count;
        }
    }
    ::close(source);
    publish(file, path);
}

void writeFile(const std::string& path, std::size_t size)
{
    const int file = createTemporary(path);
    const std::string content(size, 'x');
    require(::write(file, content.data(), size) == static_cast<ssize_t>(size), "write");
    publish(file, path);
}

void carryOut(const Words& words)
{
    const std::string& what = words.at(0);
    if (what == "pkgutil")
        runPkgutil(words);
    else if (what == "hash")
        hashFile(words.at(1));
    else if (what == "copy")
        copyFile(words.at(1), words.at(2));
    else if (what == "write")
        writeFile(words.at(1), std::stoul(words.at(2)));
    else if (what == "sync")
        syncDirectory(words.at(1));
    else if (what == "discard")
        std::filesystem::remove_all(words.at(1));
    else
        require(false, "script");
}

} // namespace

int main(int argc, char** argv)
{
    require(argc == 2, "usage");
    std::ifstream script(argv[1]);
    for (std::string line; std::getline(script, line);) {
        Words words = {""};
        for (const char c : line)
            if (c == '\t')
                words.emplace_back();
            else
                words.back() += c;
        carryOut(words);
    }
    return 0;
}
