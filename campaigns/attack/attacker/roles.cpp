#include "attacker/roles.h"

#include "attacker/search.h"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// The pairs of words from `index` on.
struct Pairs {
    std::vector<std::string> words;

    Pairs(const Order& order, std::size_t index) : words(order.from(index)) {}
    [[nodiscard]] std::size_t count() const { return words.size() / 2; }
    [[nodiscard]] const std::string& one(std::size_t i) const { return words.at(2 * i); }
    [[nodiscard]] const std::string& other(std::size_t i) const { return words.at(2 * i + 1); }
};

class File {
public:
    explicit File(const std::string& path, int flags)
        : descriptor_(::open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC))
    {
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File()
    {
        if (descriptor_ >= 0)
            ::close(descriptor_);
    }
    [[nodiscard]] int get() const { return descriptor_; }

private:
    int descriptor_;
};

/// Disturbs the content of a file in one of several ways and says whether it could.
bool disturb(const std::string& path, Dice& dice)
{
    const File file(path, O_RDWR);
    struct stat status = {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    constexpr off_t muchLonger = 1 << 20;
    switch (dice.below(5)) {
    case 0: // longer by a little
        return ::pwrite(file.get(), "x", 1, status.st_size) == 1;
    case 1: // longer by much, and back
        return ::ftruncate(file.get(), muchLonger) == 0 && ::ftruncate(file.get(), status.st_size) == 0;
    case 2: // shorter
        return ::ftruncate(file.get(), status.st_size / 2) == 0;
    case 3: // other bytes
        return ::pwrite(file.get(), "y", 1, 0) == 1;
    default: // the same bytes at another time
        char byte = 0;
        return ::pread(file.get(), &byte, 1, 0) == 1 && ::pwrite(file.get(), &byte, 1, 0) == 1;
    }
}

/// The process id that was given last.
unsigned long lastProcessId()
{
    std::ifstream stream("/proc/loadavg");
    std::string word;
    for (int i = 0; i < 5; ++i)
        stream >> word;
    return word.empty() ? 0 : std::stoul(word);
}

/// Puts something where `path` names nothing yet; false when something is there.
bool plant(const std::string& path, const std::string& yard, const std::string& secret, Dice& dice)
{
    switch (dice.below(5)) {
    case 0:
        return ::symlink(secret.c_str(), path.c_str()) == 0;
    case 1:
        return ::symlink((secret + "-not-there").c_str(), path.c_str()) == 0;
    case 2:
        return ::mkfifo(path.c_str(), 0666) == 0;
    case 3:
        return ::mkdir(path.c_str(), 0777) == 0;
    default:
        return ::link((yard + "/own").c_str(), path.c_str()) == 0;
    }
}

void unplant(const std::string& path)
{
    if (::unlink(path.c_str()) != 0)
        ::rmdir(path.c_str());
}

} // namespace

Role roleNamed(std::string_view name)
{
    constexpr std::array<std::pair<std::string_view, Role>, 8> roles = {{{"exchange", playExchange},
                                                                         {"move", playMove},
                                                                         {"write", playWrite},
                                                                         {"lock", playLock},
                                                                         {"mode", playMode},
                                                                         {"plant", playPlant},
                                                                         {"follow", playFollow},
                                                                         {"search", playSearch}}};
    for (const auto& [known, role] : roles)
        if (known == name)
            return role;
    return nullptr;
}

bool exchange(const std::string& one, const std::string& other)
{
    return ::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
}

bool renameAside(const std::string& from, const std::string& to)
{
    return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
}

void playExchange(Means& means)
{
    const Pairs pairs(means.order, 2);
    for (;;) {
        const std::size_t i = means.dice.below(pairs.count());
        if (exchange(pairs.one(i), pairs.other(i))) {
            ++means.counts.exchanged;
            means.dice.pause(means.order.number(0));
            exchange(pairs.one(i), pairs.other(i));
        } else if (renameAside(pairs.other(i), pairs.one(i))) { // nothing is there yet
            ++means.counts.exchanged;
            means.dice.pause(means.order.number(0));
            renameAside(pairs.one(i), pairs.other(i));
        }
        means.dice.pause(means.order.number(1));
    }
}

void playMove(Means& means)
{
    const Pairs pairs(means.order, 2);
    for (;;) {
        const std::size_t i = means.dice.below(pairs.count());
        if (renameAside(pairs.one(i), pairs.other(i))) {
            ++means.counts.moved;
            means.dice.pause(means.order.number(0));
            renameAside(pairs.other(i), pairs.one(i));
        }
        means.dice.pause(means.order.number(1));
    }
}

void playWrite(Means& means)
{
    const std::vector<std::string> files = means.order.from(1);
    for (;;) {
        if (disturb(files[means.dice.below(files.size())], means.dice))
            ++means.counts.written;
        means.dice.pause(means.order.number(0));
    }
}

void playLock(Means& means)
{
    for (;;) {
        {
            const File file(means.order.words.at(2), O_RDWR);
            struct flock request = {};
            request.l_type = F_WRLCK;
            request.l_whence = SEEK_SET;
            if (file.get() >= 0 && ::fcntl(file.get(), F_SETLK, &request) == 0) {
                ++means.counts.locked;
                means.dice.pause(means.order.number(0));
            }
        }
        means.dice.pause(means.order.number(1));
    }
}

void playMode(Means& means)
{
    constexpr std::array<mode_t, 5> modes = {0777, 0666, 0, 0775, 0500};
    const std::vector<std::string> places = means.order.from(1);
    for (;;) {
        const std::string& place = places[means.dice.below(places.size())];
        struct stat status = {};
        if (::lstat(place.c_str(), &status) == 0 && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) &&
            ::chmod(place.c_str(), modes[means.dice.below(modes.size())]) == 0) {
            ++means.counts.chmodded;
            means.dice.pause(means.order.number(0) / 4);
            ::chmod(place.c_str(), status.st_mode & 07777);
        }
        means.dice.pause(means.order.number(0));
    }
}

void playPlant(Means& means)
{
    constexpr unsigned long reach = 24;
    constexpr std::size_t most = 64;
    const std::string& yard = means.order.words.at(2);
    const std::string& secret = means.order.words.at(3);
    const Pairs names(means.order, 4);
    std::vector<std::string> planted;
    for (;;) {
        const std::size_t i = means.dice.below(names.count());
        const unsigned long pid = lastProcessId() + means.dice.below(reach) - reach / 3;
        const std::string path = names.one(i) + "/." + names.other(i) + ".new." + std::to_string(pid);
        if (plant(path, yard, secret, means.dice)) {
            ++means.counts.planted;
            planted.push_back(path);
        }
        if (planted.size() == most) {
            means.dice.pause(means.order.number(0));
            for (const std::string& each : planted)
                unplant(each);
            planted.clear();
        }
        means.dice.pause(means.order.number(1));
    }
}

void playSearch(Means& means)
{
    for (;;) {
        for (const std::string& directory : means.order.words)
            for (const std::string& path : secretsIn(directory))
                sayLeak(path);
        ++means.counts.searched;
        means.dice.pause(500);
    }
}
