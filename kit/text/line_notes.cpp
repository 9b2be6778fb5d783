#include "kit/text/line_notes.h"

#include "validate/text_fields.h"

#include <algorithm>

namespace maintenance::kit {

void LineNotes::error(const TextLine& line, std::string rule, const char* reason, std::string advice)
{
    findings_.push_back({Finding::Severity::Error, place_, line.number, std::string(line.text),
                         std::move(rule), subject_ + " " + reason, std::move(advice)});
}

void LineNotes::path(const TextLine& line, const PathRefusal& refusal, const char* reason)
{
    findings_.push_back({Finding::Severity::Error, place_, line.number, std::string(line.text), refusal.rule,
                         reason == nullptr ? refusal.message : subject_ + " " + reason, refusal.advice});
}

void LineNotes::warning(const TextLine& line, std::string rule, std::string advice, std::string message)
{
    findings_.push_back({Finding::Severity::Warning, place_, line.number, std::string(line.text),
                         std::move(rule), std::move(message), std::move(advice)});
}

bool LineNotes::takesApart(const TextLine& line)
{
    constexpr std::size_t longestLine = 8192;
    if (line.text.empty())
        error(line, "a line is not empty", "contains an invalid line");
    else if (line.text.size() > longestLine)
        error(line, "a line has at most 8192 bytes, this one " + std::to_string(line.text.size()),
              "contains an invalid line");
    else if (!splitKeyValue(line.text))
        error(line, "a line is a key, \"=\" and a value", "contains an invalid field");
    else
        return true;
    return false;
}

FindingList LineNotes::take()
{
    // Of the whole text, wraps around to the highest number.
    const auto order = [](const Finding& finding) { return finding.line - 1; };
    std::stable_sort(findings_.begin(), findings_.end(),
                     [&](const Finding& one, const Finding& other) { return order(one) < order(other); });
    return std::move(findings_);
}

std::vector<TextLine> numberedLines(std::string_view text)
{
    std::vector<TextLine> lines;
    for (const std::string_view line : splitLines(text))
        lines.push_back({lines.size() + 1, line});
    return lines;
}

void noteForeignLineEnds(std::string_view text, LineNotes& notes)
{
    if (notes.foundErrors() && text.find("\r\n") != std::string_view::npos)
        notes.warning({}, "lines end in carriage return and line feed",
                      "save the file with line feeds alone; that may be all that is wrong");
}

} // namespace maintenance::kit
