#pragma once

#include "kit/report/finding.h"
#include "kit/text/words.h"

#include <string>
#include <string_view>
#include <vector>

namespace maintenance::kit {

/// One line of a plan or descriptor.
struct TextLine {
    /// Counted from 1; 0 means the text as a whole.
    std::size_t number = 0;
    std::string_view text;
};

/// Collects what is wrong with a text of lines, with the words that the tool has for it.
class LineNotes {
public:
    /// place    the file's name
    /// subject  what every message of the tool begins with
    LineNotes(std::string place, std::string subject) : place_(std::move(place)), subject_(std::move(subject))
    {
    }

    /// Notes a breach of a rule; `reason` is how the tool's message ends.
    void error(const TextLine& line, std::string rule, const char* reason, std::string advice = {});
    /// Notes a refused path; its message is the tool's own for a path, or `reason` where the tool has only
    /// that.
    void path(const TextLine& line, const PathRefusal& refusal, const char* reason);
    void warning(const TextLine& line, std::string rule, std::string advice, std::string message = {});

    /// Notes what is wrong with the line itself: empty, too long, or without "=".
    /// returns  whether it can be taken apart
    bool takesApart(const TextLine& line);

    bool foundErrors() const { return hasErrors(findings_); }
    /// What was noted, in the order of the lines; last what concerns the whole text.
    FindingList take();

private:
    std::string place_;
    std::string subject_;
    FindingList findings_;
};

/// Returns the lines of a text, numbered, as the tool's parsers see them.
std::vector<TextLine> numberedLines(std::string_view text);

/// Returns a warning when the lines of a refused text end in carriage returns.
void noteForeignLineEnds(std::string_view text, LineNotes& notes);

} // namespace maintenance::kit
