#include "kit/report/sheet.h"

#include "validate/text_fields.h"

#include <algorithm>

namespace maintenance::kit {

namespace {

constexpr std::size_t gap = 2;
constexpr std::size_t shortDigits = 12;

} // namespace

std::string Sheet::text(const Paint& paint, const std::string& indent) const
{
    std::size_t width = 0;
    for (const auto& [label, value] : rows_)
        width = std::max(width, label.size() + gap);
    std::string text;
    for (const auto& [label, value] : rows_) {
        std::string shown = paint.faint(label);
        std::size_t used = label.size();
        for (const std::string& line : split(value, '\n')) {
            text += indent + shown + std::string(width - used, ' ') + line + "\n";
            shown.clear();
            used = 0;
        }
    }
    return text;
}

std::string shortDigest(const std::string& sha256) { return sha256.substr(0, shortDigits); }

} // namespace maintenance::kit
