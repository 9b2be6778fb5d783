#include "kit/cli/commands.h"
#include "kit/report/failure.h"
#include "kit/report/finding.h"
#include "kit/report/input_file.h"
#include "kit/report/output_file.h"
#include "kit/report/printable.h"
#include "kit/text/descriptor_diagnosis.h"
#include "kit/text/descriptor_maker.h"
#include "kit/text/words.h"
#include "plan/plan.h"
#include "receipts/receipt_inventory.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"

namespace maintenance::kit {

namespace {

constexpr std::size_t largestPlan = 1U << 20U;

WorkKind kindOf(const std::string& word)
{
    if (word == "move")
        return WorkKind::Move;
    if (word == "adopt")
        return WorkKind::Adopt;
    return word == "replace" ? WorkKind::Replace : WorkKind::Uninstall;
}

[[noreturn]] void refuseWord(const std::string& option, const std::string& word, const char* rule)
{
    throw Failure(WrongUsage, option + " " + printable(word) + ": " + rule, "tpm-kit descriptor --help");
}

void requireWord(const std::string& option, const std::string& word, bool (*allowed)(std::string_view),
                 const char* rule)
{
    if (!allowed(word))
        refuseWord(option, word, rule);
}

/// Takes PRODUCT=VERSION apart.
void addRecorded(WorkOrder& order, const std::string& word)
{
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos)
        refuseWord("--recorded", word, "write PRODUCT=VERSION");
    requireWord("--recorded", word.substr(0, equals), safeId, idRule);
    requireWord("--recorded", word.substr(equals + 1), safeVersion, versionRule);
    order.recorded[word.substr(0, equals)] = word.substr(equals + 1);
}

WorkOrder orderOf(const DescriptorOptions& options)
{
    WorkOrder order{kindOf(options.kind), options.scope,    options.id, options.sku,
                    options.decision,     options.products, {}};
    requireWord("--id", order.id, safeId, idRule);
    if (!order.sku.empty())
        requireWord("--sku", order.sku, safeId, idRule);
    if (options.plan.empty() && order.sku.empty())
        throw Failure(WrongUsage, "what is installed does not say its sku", "give it with --sku");
    if (order.kind != WorkKind::Move && options.decision != "none")
        throw Failure(WrongUsage, "--decision counts for a move only", "leave it out");
    for (const std::string& product : order.products)
        requireWord("--product", product, safeId, idRule);
    for (const std::string& word : options.recorded)
        addRecorded(order, word);
    return order;
}

Descriptor fromPlan(const WorkOrder& order, const std::string& file)
{
    const std::string text = readInputFile(file, largestPlan).content;
    try {
        return makeDescriptor(order, parsePlanText(text));
    } catch (const Invalid& error) {
        throw Failure(Findings, printable(file) + ": " + error.what(),
                      "tpm-kit check " + shellQuoted(file) + " says what is wrong, line by line");
    }
}

Descriptor fromInstalled(const WorkOrder& order)
{
    const std::string scope = startingScope(order);
    try {
        return makeDescriptor(order, pkgutilReceipts(scope, true));
    } catch (const Invalid& error) {
        const bool unreadable = std::string_view(error.what()) == "cannot read an owned file";
        throw Failure(
            unreadable ? NotPermitted : Findings,
            "what is installed in the scope " + scope + " cannot be described: " + error.what(),
            unreadable ? "make the descriptor from a plan, or run this as an account that may read the files"
                       : "tpm-kit verify " + scope + " says which file it is");
    }
}

/// What a result says besides the descriptor itself.
Json resultJson(const Descriptor& descriptor, const std::string& output, const FindingList& findings)
{
    Json json{{"written", !hasErrors(findings)}, {"id", descriptor.id}};
    if (!hasErrors(findings)) {
        json["output"] = output;
        json["sha256"] = descriptor.fileSha256;
        json["products"] = descriptor.products.size();
        json["files"] = descriptor.files.size();
    }
    json["findings"] = findingsJson(findings);
    return json;
}

std::string nextCommand(const WorkOrder& order)
{
    return order.kind == WorkKind::Uninstall ? "uninstall-product " + order.scope + " " + order.id
                                             : "prepare-move " + order.scope + " " + order.id;
}

Answer written(const WorkOrder& order, const Descriptor& descriptor, const std::string& output,
               const Paint& paint)
{
    std::string text = paint.good("written ") + printable(output, 4096) + ": " +
                       counted(descriptor.products.size(), "product") + ", " +
                       counted(descriptor.files.size(), "file") + ", SHA-256 " + descriptor.fileSha256 + "\n";
    text += "put it into the inbox of the scope " + order.scope + " as " + order.id +
            ".tpmt, for: " + nextCommand(order) + "\n";
    return {AllRight, text, {}};
}

} // namespace

Answer runDescriptor(const DescriptorOptions& options, bool json, const Terminal& terminal)
{
    const WorkOrder order = orderOf(options);
    const std::string output = options.output.empty() ? order.id + ".tpmt" : options.output;
    if (output == "-" && json)
        throw Failure(WrongUsage, "the descriptor and the JSON result cannot both go to standard output",
                      "name a file with --output, or leave --json out");
    if (!options.plan.empty())
        requireOtherThan({options.plan}, output);
    Descriptor descriptor = options.plan.empty() ? fromInstalled(order) : fromPlan(order, options.plan);
    const std::string text = descriptorText(descriptor);
    const FindingList findings = diagnoseDescriptor(text, output, order.scope);
    if (hasErrors(findings))
        return {Findings, json ? jsonText(resultJson(descriptor, output, findings)) : "",
                json ? "" : findingsText(findings, terminal.err) + "tpm-kit: no descriptor was written\n"};
    descriptor = parseDescriptorText(text, order.scope, order.id);
    if (output == "-")
        return {AllRight, text, findingsText(findings, terminal.err)};
    writeOutputFile(output, text);
    if (json)
        return {AllRight, jsonText(resultJson(descriptor, output, findings)), {}};
    Answer answer = written(order, descriptor, output, terminal.out);
    answer.err = findingsText(findings, terminal.err);
    return answer;
}

} // namespace maintenance::kit
