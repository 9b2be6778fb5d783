#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace maintenance::kit {

/// A bar on the terminal's last line while something long is read; erased at the end. Draws nothing where
/// nothing is to be shown, and never influences a result.
class Progress {
public:
    /// shown  whether standard error is a terminal that takes it
    /// label  one word: what is being done
    /// total  bytes that are to be read; 0 when that is unknown
    Progress(bool shown, std::string label, std::uint64_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// More bytes have been read, of what is called `item`.
    void advance(std::uint64_t bytes, const std::string& item);
    /// So many bytes have been read since the beginning.
    void reach(std::uint64_t bytes, const std::string& item);

private:
    void draw(const std::string& item);

    bool shown_;
    bool drawn_ = false;
    std::string label_;
    std::uint64_t total_;
    std::uint64_t done_ = 0;
    std::chrono::steady_clock::time_point nextDrawing_;
};

} // namespace maintenance::kit
