#include "kit/cli/commands.h"
#include "kit/cli/payload_source.h"
#include "kit/payload/assembly.h"
#include "kit/report/failure.h"
#include "kit/report/finding.h"
#include "kit/report/input_file.h"
#include "kit/report/output_file.h"
#include "kit/report/printable.h"
#include "kit/text/plan_diagnosis.h"
#include "kit/text/plan_text.h"
#include "plan/plan.h"

namespace maintenance::kit {

namespace {

constexpr std::size_t largestProductList = 1U << 24U;

void append(FindingList& findings, FindingList more)
{
    for (Finding& finding : more)
        findings.push_back(std::move(finding));
}

std::size_t errorCount(const FindingList& findings)
{
    std::size_t count = 0;
    for (const Finding& finding : findings)
        if (finding.severity == Finding::Severity::Error)
            ++count;
    return count;
}

/// The plan's text, where nothing stands against it.
std::string assembledText(const PlanOptions& options, const Terminal& terminal, FindingList& findings)
{
    const ProductList list = readProductList(readInputFile(options.products, largestProductList).content,
                                             options.products, findings);
    if (hasErrors(findings))
        return {};
    const Payload payload = readNamedPayload(options.payload, terminal.progress);
    append(findings, payload.findings);
    const Plan plan = assemblePlan(list, payload, findings);
    if (hasErrors(findings))
        return {};
    std::string text = planText(plan);
    append(findings, diagnosePlan(text, options.output));
    return text;
}

Answer refused(const FindingList& findings, bool json, const Terminal& terminal)
{
    if (json)
        return {Findings, jsonText({{"written", false}, {"findings", findingsJson(findings)}}), {}};
    return {Findings,
            {},
            findingsText(findings, terminal.err) + "tpm-kit: no plan was written; " +
                counted(errorCount(findings), "error") + "\n"};
}

Json resultJson(const Plan& plan, const std::string& output, const FindingList& findings)
{
    std::size_t files = 0;
    for (const PlanComponent& component : plan.components)
        files += component.targets.size();
    return {{"written", true},
            {"output", output},
            {"sha256", plan.sha256},
            {"products", plan.products.size()},
            {"packages", plan.components.size()},
            {"files", files},
            {"findings", findingsJson(findings)}};
}

std::string summary(const Json& result)
{
    return counted(result["products"].get<std::size_t>(), "product") + ", " +
           counted(result["packages"].get<std::size_t>(), "package") + ", " +
           counted(result["files"].get<std::size_t>(), "file") + ", SHA-256 " +
           result["sha256"].get<std::string>();
}

} // namespace

Answer runPlan(const PlanOptions& options, bool json, const Terminal& terminal)
{
    const bool toOutput = options.output == "-";
    if (toOutput && json)
        throw Failure(WrongUsage, "the plan and the JSON result cannot both go to standard output",
                      "name a file with --output, or leave --json out");
    std::vector<std::string> inputs = options.payload.packages;
    inputs.push_back(options.products);
    requireOtherThan(inputs, options.output);
    FindingList findings;
    const std::string text = assembledText(options, terminal, findings);
    if (hasErrors(findings))
        return refused(findings, json, terminal);

    const Json result = resultJson(parsePlanText(text), options.output, findings);
    if (toOutput)
        return {AllRight, text, findingsText(findings, terminal.err)};
    writeOutputFile(options.output, text);
    if (json)
        return {AllRight, jsonText(result), {}};
    return {AllRight,
            terminal.out.good("written ") + printable(options.output, 4096) + ": " + summary(result) + "\n",
            findingsText(findings, terminal.err)};
}

} // namespace maintenance::kit
