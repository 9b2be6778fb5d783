#pragma once

#include "kit/report/json.h"
#include "kit/report/paint.h"

#include <cstddef>
#include <string>
#include <vector>

namespace maintenance::kit {

/// One thing that is wrong.
struct Finding {
    /// An error makes the input useless; a warning is what the tool accepts and somebody will regret.
    enum class Severity { Error, Warning };

    Severity severity = Severity::Error;
    /// The file or path that it is about; may be empty.
    std::string place;
    /// Line in that file, counted from 1; 0 when no line is meant.
    std::size_t line = 0;
    /// The offending text as it stands; empty when there is none.
    std::string text;
    /// What is wrong, in words.
    std::string rule;
    /// The privileged tool's own message; empty when it has none.
    std::string message;
    /// What to do next; may be empty.
    std::string advice;
};

using FindingList = std::vector<Finding>;

/// Makes a warning of the same content.
Finding asWarning(Finding finding);

bool hasErrors(const FindingList& findings);

/// Returns the findings for people, each with its offending text, the tool's message and the advice on lines
/// of their own.
std::string findingsText(const FindingList& findings, const Paint& paint);

/// Returns the findings as an array of objects; members without content are left out.
Json findingsJson(const FindingList& findings);

/// The status that findings end a run with: Findings where there is an error, or any finding when `strict`.
int statusOf(const FindingList& findings, bool strict);

} // namespace maintenance::kit
