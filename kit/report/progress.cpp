#include "kit/report/progress.h"

#include "kit/report/printable.h"
#include "kit/report/terminal.h"

#include <algorithm>
#include <unistd.h>

namespace maintenance::kit {

namespace {

constexpr std::uint64_t barWidth = 24;
constexpr std::size_t itemWidth = 32;
constexpr std::chrono::milliseconds betweenDrawings{100};
constexpr const char* eraseLine = "\r\033[K";

std::string bar(std::uint64_t done, std::uint64_t total)
{
    const auto filled = static_cast<std::size_t>(std::min(done, total) * barWidth / total);
    return "[" + std::string(filled, '#') + std::string(barWidth - filled, ' ') + "] ";
}

/// The end of a long name says more than its beginning.
std::string shortened(const std::string& item)
{
    const std::string shown = printable(item);
    return shown.size() <= itemWidth ? shown : "..." + shown.substr(shown.size() - itemWidth + 3);
}

} // namespace

Progress::Progress(bool shown, std::string label, std::uint64_t total)
    : shown_(shown),
      label_(std::move(label)),
      total_(total),
      nextDrawing_(std::chrono::steady_clock::now() + betweenDrawings)
{
}

Progress::~Progress()
{
    if (drawn_)
        writeWhole(STDERR_FILENO, eraseLine);
}

void Progress::advance(std::uint64_t bytes, const std::string& item) { reach(done_ + bytes, item); }

void Progress::reach(std::uint64_t bytes, const std::string& item)
{
    done_ = bytes;
    if (!shown_)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (now < nextDrawing_)
        return;
    nextDrawing_ = now + betweenDrawings;
    draw(item);
}

void Progress::draw(const std::string& item)
{
    std::string line = eraseLine + label_ + " ";
    if (total_ != 0)
        line += bar(done_, total_) + byteCount(done_) + " of " + byteCount(total_) + "  ";
    else
        line += byteCount(done_) + "  ";
    drawn_ = writeWhole(STDERR_FILENO, line + shortened(item)) || drawn_;
}

} // namespace maintenance::kit
