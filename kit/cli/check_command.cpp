#include "kit/cli/commands.h"
#include "kit/cli/payload_source.h"
#include "kit/payload/comparison.h"
#include "kit/report/failure.h"
#include "kit/report/finding.h"
#include "kit/report/input_file.h"
#include "kit/report/printable.h"
#include "kit/text/descriptor_diagnosis.h"
#include "kit/text/listed_files.h"
#include "kit/text/plan_diagnosis.h"
#include "kit/text/tool_file.h"
#include "kit/text/words.h"
#include "kit/text/work_files.h"
#include "plan/descriptor.h"
#include "plan/plan.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"

#include <sys/stat.h>

namespace maintenance::kit {

namespace {

constexpr std::size_t largestChecked = 64U << 20U;
constexpr mode_t writableByOthers = S_IWGRP | S_IWOTH;

/// What is being checked.
struct Subject {
    std::string file;
    std::string text;
    FileKind kind;
    /// Of a descriptor.
    std::string scope;
    std::string id;
    FindingList findings;
};

FileKind kindOf(const CheckOptions& options, std::string_view text)
{
    const std::optional<FileKind> found =
        options.kind.empty() ? detectFileKind(text, options.file) : fileKindOf(options.kind);
    if (found == FileKind::Plan || found == FileKind::Descriptor)
        return *found;
    // A file without a readable schema is told by its name; in doubt by what a maker writes most often.
    if (!options.kind.empty() || options.file.ends_with(".tpmp"))
        return FileKind::Plan;
    if (options.file.ends_with(".tpmt"))
        return FileKind::Descriptor;
    throw Failure(Findings, printable(options.file) + " is neither a plan nor a descriptor",
                  found ? "tpm-kit show " + shellQuoted(options.file) + " reads it"
                        : "if it is one of them and damaged, say which with --kind");
}

void add(Subject& subject, std::string rule, std::string message, std::string advice)
{
    subject.findings.push_back({Finding::Severity::Error,
                                subject.file,
                                0,
                                {},
                                std::move(rule),
                                std::move(message),
                                std::move(advice)});
}

/// Notes what the tool would refuse of the file itself, whatever is in it.
void examineFile(Subject& subject)
{
    struct stat status = {};
    if (subject.file == "-" || ::lstat(subject.file.c_str(), &status) != 0)
        return;
    const bool isPlan = subject.kind == FileKind::Plan;
    const std::string unsafe = isPlan ? "embedded transaction plan is missing or unsafe"
                                      : "maintenance descriptor is missing or unsafe";
    if (!S_ISREG(status.st_mode))
        add(subject, "the file is no regular file", unsafe, "put the file itself in its place");
    else if (status.st_nlink != 1)
        add(subject, "the file has several names (hard links)", unsafe, "copy it");
    if (S_ISREG(status.st_mode) && (status.st_mode & writableByOthers) != 0)
        add(subject, "mode " + octalMode(status.st_mode & 07777U) + " lets the group or others write",
            isPlan ? unsafe : "maintenance descriptor permissions are unsafe",
            "chmod go-w " + shellQuoted(subject.file));
}

void examineId(Subject& subject)
{
    if (subject.id.empty())
        subject.findings.push_back({Finding::Severity::Warning,
                                    subject.file,
                                    0,
                                    {},
                                    "a descriptor's file is called after its identifier",
                                    {},
                                    "name it IDENTIFIER.tpmt, or give --id"});
    else if (!safeId(subject.id))
        subject.findings.push_back({Finding::Severity::Error,
                                    subject.file,
                                    0,
                                    subject.id,
                                    idRule,
                                    {},
                                    "give the file another name; no command takes this identifier"});
}

/// The tool's own verdict on the content: its message, or nothing when it accepts it.
std::string verdictOf(const Subject& subject)
{
    try {
        if (subject.kind == FileKind::Plan)
            parsePlanText(subject.text);
        else
            parseDescriptorText(subject.text, subject.scope, subject.id);
        return {};
    } catch (const Invalid& error) {
        return error.what();
    }
}

Subject readSubject(const CheckOptions& options)
{
    Subject subject{options.file, readInputFile(options.file, largestChecked).content, {}, {}, {}, {}};
    subject.kind = kindOf(options, subject.text);
    subject.scope = options.scope.empty() ? targetScopeOf(subject.text) : options.scope;
    subject.id = options.id.empty() ? descriptorIdOf(options.file) : options.id;
    return subject;
}

void diagnose(Subject& subject, const std::string& verdict)
{
    examineFile(subject);
    FindingList found;
    if (subject.kind == FileKind::Plan) {
        found = diagnosePlan(subject.text, subject.file);
    } else {
        examineId(subject);
        found = diagnoseDescriptor(subject.text, subject.file, subject.scope);
    }
    // The tool has the last word.
    if (!verdict.empty() && !hasErrors(found))
        add(subject, "the tool refuses the content", verdict, "report this together with the file");
    for (Finding& finding : found)
        subject.findings.push_back(std::move(finding));
}

ListedFiles filesOf(const Subject& subject)
{
    return subject.kind == FileKind::Plan
               ? listedFiles(parsePlanText(subject.text))
               : listedFiles(parseDescriptorText(subject.text, subject.scope, subject.id));
}

/// What came out of a check.
struct Result {
    Subject subject;
    std::string verdict;
    bool compared = false;
    std::vector<Difference> differences;
    int status = AllRight;
};

void compare(Result& result, const PayloadOptions& options, bool showProgress)
{
    if (options.empty() || !result.verdict.empty())
        return;
    const Payload payload = readNamedPayload(options, showProgress);
    for (const Finding& finding : payload.findings)
        result.subject.findings.push_back(finding);
    result.differences = compareWithPayload(filesOf(result.subject), payload);
    result.compared = true;
}

Json resultJson(const Result& result)
{
    Json json{{"file", printable(result.subject.file, 4096)},
              {"kind", wordOf(result.subject.kind)},
              {"accepted", result.status == AllRight},
              {"findings", findingsJson(result.subject.findings)}};
    if (!result.verdict.empty())
        json["toolMessage"] = result.verdict;
    if (result.compared)
        json["differences"] = differencesJson(result.differences);
    return json;
}

std::string resultText(const Result& result, const Paint& paint)
{
    std::string text =
        findingsText(result.subject.findings, paint) + differencesText(result.differences, paint);
    const std::string file = printable(result.subject.file, 4096);
    const std::string kind = wordOf(result.subject.kind);
    if (result.status == AllRight)
        return text + file + ": " + paint.good("a valid " + kind) +
               (result.compared ? ", and the payload is exactly what it lists" : "") + "\n";
    if (!result.verdict.empty())
        return text + file + ": " + paint.bad("the tool refuses this " + kind) + ": " + result.verdict + "\n";
    if (!result.differences.empty())
        return text + file + ": " + paint.bad(counted(result.differences.size(), "difference")) +
               " between the " + kind + " and the payload\n";
    return text + file + ": " + paint.bad("not fit to be installed") + "\n";
}

} // namespace

Answer runCheck(const CheckOptions& options, bool json, const Terminal& terminal)
{
    Result result{readSubject(options), {}, false, {}, AllRight};
    result.verdict = verdictOf(result.subject);
    diagnose(result.subject, result.verdict);
    compare(result, options.payload, terminal.progress);
    result.status = statusOf(result.subject.findings, options.strict);
    if (!result.differences.empty())
        result.status = Findings;
    return {result.status, json ? jsonText(resultJson(result)) : resultText(result, terminal.out), {}};
}

} // namespace maintenance::kit
