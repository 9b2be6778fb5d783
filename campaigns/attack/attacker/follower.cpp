#include "attacker/roles.h"
#include "attacker/search.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::uint32_t watched = IN_CREATE | IN_MOVED_TO | IN_OPEN | IN_CLOSE_WRITE;
constexpr unsigned long longestHold = 200; // microseconds

void makeSocket(const std::string& path)
{
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (descriptor >= 0 && ::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        ::close(descriptor);
}

/// Waits for events in directories and answers each of them with a disturbance of what it is about.
class Follower {
public:
    Follower(Means& means, int watch) : means_(means), watch_(watch), yard_(means.order.words.at(0))
    {
        makeDecoys(means.order.words.at(1));
        for (const std::string& directory : means.order.from(2))
            add(directory);
    }

    [[noreturn]] void follow()
    {
        alignas(inotify_event) std::array<char, 65536> buffer;
        for (;;) {
            const ssize_t count = ::read(watch_, buffer.data(), buffer.size());
            for (ssize_t at = 0; at < count;) {
                inotify_event event = {};
                std::memcpy(&event, buffer.data() + at, sizeof event);
                if (event.len > 0)
                    answer(event, buffer.data() + at + sizeof event);
                at += static_cast<ssize_t>(sizeof event + event.len);
            }
        }
    }

private:
    void makeDecoys(const std::string& secret)
    {
        const auto decoy = [&](const char* name) { return decoys_.emplace_back(yard_ + "/" + name).c_str(); };
        makeSocket(decoy("socket"));
        const int file = ::open(decoy("file"), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        const bool made = ::symlink(secret.c_str(), decoy("link")) == 0 &&
                          ::symlink("/etc", decoy("link-to-directory")) == 0 &&
                          ::mkfifo(decoy("pipe"), 0666) == 0 && ::mkdir(decoy("directory"), 0777) == 0;
        if (file < 0 || !made)
            ::_exit(1);
        ::close(file);
    }

    void add(const std::string& directory)
    {
        const int number =
            ::inotify_add_watch(watch_, directory.c_str(), watched | IN_DONT_FOLLOW | IN_ONLYDIR);
        if (number >= 0)
            directories_[number] = directory;
    }

    void answer(const inotify_event& event, const char* name)
    {
        const auto directory = directories_.find(event.wd);
        if (directory == directories_.end())
            return;
        const std::string path = directory->second + "/" + name;
        if ((event.mask & IN_ISDIR) != 0)
            add(path);
        // Always would end nearly every run at its first step.
        constexpr std::size_t outOf = 6;
        if (means_.dice.below(outOf) != 0)
            return;
        disturb(path);
        ++means_.counts.followed;
    }

    void disturb(const std::string& path)
    {
        const std::string aside = yard_ + "/aside";
        switch (means_.dice.below(6)) {
        case 0: {
            const std::string& decoy = decoys_[means_.dice.below(decoys_.size())];
            if (!exchange(path, decoy))
                return;
            means_.dice.pause(longestHold);
            exchange(path, decoy);
            return;
        }
        case 1:
            if (::link(path.c_str(), aside.c_str()) == 0) {
                means_.dice.pause(longestHold);
                ::unlink(aside.c_str());
            }
            return;
        case 2:
            if (renameAside(path, aside)) {
                means_.dice.pause(longestHold);
                renameAside(aside, path);
            }
            return;
        case 3:
            keep(path);
            return;
        case 4:
            append(path);
            return;
        default:
            changeMode(path);
            return;
        }
    }

    /// Opens a file that has just appeared and looks later what came into it.
    void keep(const std::string& path)
    {
        constexpr std::size_t most = 32;
        if (kept_.size() == most) {
            for (const int descriptor : kept_) {
                if (holdsSecret(descriptor))
                    sayLeak("a descriptor that was opened early");
                ::close(descriptor);
            }
            kept_.clear();
        }
        const int descriptor = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (descriptor >= 0)
            kept_.push_back(descriptor);
    }

    static void append(const std::string& path)
    {
        const int descriptor =
            ::open(path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (descriptor < 0)
            return;
        [[maybe_unused]] const ssize_t written = ::write(descriptor, "z", 1);
        ::close(descriptor);
    }

    void changeMode(const std::string& path)
    {
        struct stat status = {};
        if (::lstat(path.c_str(), &status) != 0 || S_ISLNK(status.st_mode))
            return;
        ::chmod(path.c_str(), 0777);
        means_.dice.pause(longestHold);
        ::chmod(path.c_str(), status.st_mode & 07777);
    }

    Means& means_;
    const int watch_;
    const std::string yard_;
    std::vector<std::string> decoys_;
    std::vector<int> kept_;
    std::map<int, std::string> directories_; ///< by watch number
};

} // namespace

void playFollow(Means& means) { Follower(means, ::inotify_init1(IN_CLOEXEC)).follow(); }
