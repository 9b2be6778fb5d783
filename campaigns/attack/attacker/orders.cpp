#include "attacker/orders.h"

#include <ctime>
#include <fstream>
#include <sched.h>
#include <stdexcept>

namespace {

std::vector<std::string> wordsOf(const std::string& line)
{
    std::vector<std::string> words;
    for (std::size_t start = 0;;) {
        const std::size_t end = line.find('\t', start);
        words.push_back(line.substr(start, end - start));
        if (end == std::string::npos)
            return words;
        start = end + 1;
    }
}

} // namespace

unsigned long Order::number(std::size_t index) const { return std::stoul(words.at(index)); }

std::vector<std::string> Order::from(std::size_t index) const
{
    return {words.begin() + static_cast<std::ptrdiff_t>(index), words.end()};
}

Orders readOrders(const std::string& path)
{
    std::ifstream stream(path);
    Orders read{0, {}};
    for (std::string line; std::getline(stream, line);) {
        std::vector<std::string> words = wordsOf(line);
        Order order{words.front(), {words.begin() + 1, words.end()}};
        if (order.role == "seed")
            read.seed = order.number(0);
        else
            read.orders.push_back(std::move(order));
    }
    if (read.orders.empty())
        throw std::runtime_error("no orders in " + path);
    return read;
}

std::size_t Dice::below(std::size_t bound)
{
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(generator_);
}

void Dice::pause(unsigned long microseconds)
{
    constexpr unsigned long shortestSleep = 100;
    const unsigned long wait = below(2 * microseconds + 1);
    if (wait == 0)
        return;
    if (wait < shortestSleep) {
        // The kernel's timer would take longer than that.
        for (unsigned long i = 0; i < wait; ++i)
            ::sched_yield();
        return;
    }
    const timespec time{0, static_cast<long>(wait) * 1000};
    ::nanosleep(&time, nullptr);
}
