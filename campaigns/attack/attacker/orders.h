#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

/// One line of the orders: which part to play, and with what.
struct Order {
    std::string role;
    std::vector<std::string> words;

    /// The word at `index` as a number.
    [[nodiscard]] unsigned long number(std::size_t index) const;
    /// The words from `index` on.
    [[nodiscard]] std::vector<std::string> from(std::size_t index) const;
};

/// Everything that a group of attackers is to do.
struct Orders {
    std::uint64_t seed;
    std::vector<Order> orders;
};

/// Reads orders: "seed" and a number, then one order a line, words separated by tabs. Throws
/// std::runtime_error.
Orders readOrders(const std::string& path);

/// Draws and waits.
class Dice {
public:
    explicit Dice(std::uint64_t seed) : generator_(seed) {}
    /// A number below `bound`.
    std::size_t below(std::size_t bound);
    /// Waits for between nothing and twice `microseconds`.
    void pause(unsigned long microseconds);

private:
    std::mt19937_64 generator_;
};
