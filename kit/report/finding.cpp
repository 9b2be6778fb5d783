#include "kit/report/finding.h"

#include "kit/report/failure.h"
#include "kit/report/printable.h"

#include <algorithm>

namespace maintenance::kit {

namespace {

/// No path that a system takes is longer.
constexpr std::size_t longestPlace = 4096;

bool isError(const Finding& finding) { return finding.severity == Finding::Severity::Error; }

std::string placeOf(const Finding& finding)
{
    std::string place = printable(finding.place, longestPlace);
    if (finding.line != 0)
        place += ":" + std::to_string(finding.line);
    return place.empty() ? place : place + ": ";
}

std::string findingText(const Finding& finding, const Paint& paint)
{
    std::string text = paint.strong(placeOf(finding));
    text += isError(finding) ? paint.bad("error: ") : paint.doubtful("warning: ");
    text += finding.rule + "\n";
    if (!finding.text.empty())
        text += "    > " + printable(finding.text) + "\n";
    if (!finding.message.empty())
        text += "    the tool says: " + finding.message + "\n";
    if (!finding.advice.empty())
        text += "    to do: " + finding.advice + "\n";
    return text;
}

Json findingJson(const Finding& finding)
{
    Json json;
    json["severity"] = isError(finding) ? "error" : "warning";
    if (!finding.place.empty())
        json["place"] = printable(finding.place, longestPlace);
    if (finding.line != 0)
        json["line"] = finding.line;
    if (!finding.text.empty())
        json["text"] = printable(finding.text);
    json["rule"] = finding.rule;
    if (!finding.message.empty())
        json["toolMessage"] = finding.message;
    if (!finding.advice.empty())
        json["advice"] = finding.advice;
    return json;
}

} // namespace

Finding asWarning(Finding finding)
{
    finding.severity = Finding::Severity::Warning;
    return finding;
}

bool hasErrors(const FindingList& findings) { return std::any_of(findings.begin(), findings.end(), isError); }

std::string findingsText(const FindingList& findings, const Paint& paint)
{
    std::string text;
    for (const Finding& finding : findings)
        text += findingText(finding, paint);
    return text;
}

Json findingsJson(const FindingList& findings)
{
    Json array = Json::array();
    for (const Finding& finding : findings)
        array.push_back(findingJson(finding));
    return array;
}

int statusOf(const FindingList& findings, bool strict)
{
    return hasErrors(findings) || (strict && !findings.empty()) ? Findings : AllRight;
}

} // namespace maintenance::kit
