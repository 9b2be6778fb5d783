#include "kit/text/loadability.h"

#include "fs/fixed_file.h"
#include "kit/text/descriptor_diagnosis.h"
#include "kit/text/plan_text.h"
#include "validate/identifiers.h"

#include <algorithm>

namespace maintenance::kit {

namespace {

constexpr const char* unsafeDescriptor = "materialized maintenance descriptor is unsafe";
/// Four numbers of 64 bits and the dots between them.
constexpr std::size_t longestComparableVersion = 4 * 20 + 3;

Finding about(const std::string& place, std::string text, std::string rule, std::string advice)
{
    return {Finding::Severity::Error, place, 0, std::move(text), std::move(rule), unsafeDescriptor,
            std::move(advice)};
}

/// The size of the descriptor when every product is installed at a version as long as can be compared.
std::size_t largestDescriptor(const Descriptor& fresh)
{
    return descriptorText(fresh).size() + fresh.products.size() * (longestComparableVersion - 1);
}

} // namespace

FindingList loadabilityFindings(const Plan& plan, const std::string& place)
{
    FindingList findings;
    for (const auto& [product, version] : plan.products)
        if (product == commonProduct)
            findings.push_back(about(place, product, "no product can be called like the shared package",
                                     "choose another identifier"));
    const Descriptor fresh = freshDescriptor(plan, "system");
    const std::string text = descriptorText(fresh);
    const auto limit = static_cast<std::size_t>(largestMetadata);
    if (text.size() > limit)
        findings.push_back(about(place, {},
                                 "the descriptor that begin-install makes of the plan would have " +
                                     std::to_string(text.size()) + " bytes, more than 1048576",
                                 "install fewer files with one plan"));
    else if (largestDescriptor(fresh) > limit)
        findings.push_back(asWarning(about(place, {},
                                           "where long versions are installed already, the descriptor that "
                                           "begin-install makes of the plan could exceed 1048576 bytes",
                                           "install fewer files with one plan")));
    if (!findings.empty())
        return findings;
    for (Finding& finding : diagnoseDescriptor(text, place, "system")) {
        const bool isError = finding.severity == Finding::Severity::Error;
        if (isError)
            findings.push_back(
                about(place, finding.text, finding.rule + " (" + finding.message + ")", finding.advice));
    }
    return findings;
}

} // namespace maintenance::kit
