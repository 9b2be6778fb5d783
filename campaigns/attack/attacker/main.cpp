// The attackers of one run: processes of an ordinary account that disturb files without end.
//
//   attacker ORDERS COUNTS            plays all roles of the file ORDERS, each in a process of its own; says
//                                     "ready" on standard output and goes on until it is killed, with all of
//                                     them; counts what was done in the file COUNTS
//   attacker --search DIRECTORY...    searches once for secrets that this account can read
//
// A secret that could be read is reported as "leak" and the path, separated by a tab.

#include "attacker/roles.h"
#include "attacker/search.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

Counts& shareCounts(const char* path)
{
    const int descriptor = ::open(path, O_RDWR | O_CLOEXEC);
    void* shared = MAP_FAILED;
    if (descriptor >= 0 && ::ftruncate(descriptor, sizeof(Counts)) == 0)
        shared = ::mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (shared == MAP_FAILED)
        throw std::runtime_error(std::string("cannot use ") + path + ": " + std::strerror(errno));
    ::close(descriptor);
    return *static_cast<Counts*>(shared);
}

void startRole(const Order& order, std::uint64_t seed, Counts& counts)
{
    const Role role = roleNamed(order.role);
    if (role == nullptr)
        throw std::runtime_error("there is no role " + order.role);
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child < 0)
        throw std::runtime_error("cannot start a process");
    if (child > 0)
        return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() == parent) {
        Means means{order, Dice(seed), counts};
        role(means);
    }
    ::_exit(1);
}

void play(const char* ordersPath, const char* countsPath)
{
    const Orders orders = readOrders(ordersPath);
    Counts& counts = shareCounts(countsPath);
    std::uint64_t seed = orders.seed;
    for (const Order& order : orders.orders)
        startRole(order, seed++, counts);
    constexpr std::string_view ready = "ready\n";
    [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, ready.data(), ready.size());
    for (;;)
        ::pause();
}

} // namespace

int main(int count, char** arguments)
{
    try {
        if (count > 2 && std::string_view(arguments[1]) == "--search") {
            for (int i = 2; i < count; ++i)
                for (const std::string& path : secretsIn(arguments[i]))
                    sayLeak(path);
            return 0;
        }
        if (count != 3)
            throw std::runtime_error("usage: attacker ORDERS COUNTS | attacker --search DIRECTORY...");
        play(arguments[1], arguments[2]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "attacker: %s\n", error.what());
    }
    return 1;
}
