#include "kit/cli/commands.h"
#include "kit/cli/more_rights.h"
#include "kit/machine/audit.h"
#include "kit/report/failure.h"
#include "kit/report/input_file.h"
#include "kit/report/printable.h"
#include "kit/text/tool_file.h"
#include "plan/plan.h"
#include "validate/invalid.h"

namespace maintenance::kit {

namespace {

constexpr std::size_t largestReference = 1U << 20U;

/// Takes the reference from a plan or descriptor that was named.
Reference namedReference(const std::string& file, const std::string& scope)
{
    const std::string text = readInputFile(file, largestReference).content;
    ListedFiles files;
    try {
        files = detectFileKind(text) == FileKind::Plan
                    ? listedFiles(parsePlanText(text))
                    : listedFiles(parseDescriptorText(text, scope, descriptorIdOf(file)));
    } catch (const Invalid& error) {
        throw Failure(Findings, printable(file) + " cannot be compared with: " + error.what(),
                      "tpm-kit check " + shellQuoted(file) + " says what is wrong, line by line");
    }
    Reference reference;
    for (const auto& [path, listed] : files)
        reference.add(path, listed);
    reference.origins.push_back(file);
    return reference;
}

Reference referenceFor(const VerifyOptions& options, const Registrations& registrations,
                       std::vector<std::string>& unreadable)
{
    if (!options.against.empty())
        return namedReference(options.against, options.scope);
    std::map<std::string, ScopeView> views;
    for (const char* scope : {"user", "system"})
        views.emplace(scope, readScope(scope));
    for (const std::string& path : views.at(options.scope).sightings.unreadable)
        unreadable.push_back(path);
    return completedReference(views, options.scope, registrations);
}

int statusOf(const Audit& audit, const Registrations& registrations)
{
    if (!audit.findings.empty())
        return Findings;
    return audit.unreadable.empty() && audit.unvouched == 0 && registrations.known ? AllRight : NotPermitted;
}

/// The command that would tell the rest; empty when nothing is missing for want of rights.
std::string adviceFor(const VerifyOptions& options, const Audit& audit)
{
    if (audit.unreadable.empty())
        return {};
    const std::string against = options.against.empty() ? "" : " --against " + shellQuoted(options.against);
    return withMoreRights("verify " + options.scope + against);
}

Json auditJson(const VerifyOptions& options, const Audit& audit, const Reference& reference, int status)
{
    Json json{{"scope", options.scope},
              {"sound", status == AllRight},
              {"packages", audit.packages},
              {"files", audit.files},
              {"unvouchedFiles", audit.unvouched},
              {"comparedWith", reference.origins},
              {"findings", findingsJson(audit.findings)}};
    json["reinstall"] = Json::array();
    for (const auto& [packageId, version] : audit.reinstall)
        json["reinstall"].push_back({{"packageId", packageId}, {"version", printable(version)}});
    json["unreadable"] = Json::array();
    for (const std::string& path : audit.unreadable)
        json["unreadable"].push_back(printable(path, 4096));
    if (const std::string advice = adviceFor(options, audit); !advice.empty())
        json["advice"] = advice;
    return json;
}

std::string auditText(const VerifyOptions& options, const Audit& audit, const Reference& reference,
                      int status, const Paint& paint)
{
    std::string text = findingsText(audit.findings, paint);
    for (const std::string& path : audit.unreadable)
        text += paint.doubtful("may not be read by this account: ") + printable(path, 4096) + "\n";
    if (const std::string advice = adviceFor(options, audit); !advice.empty())
        text += "to do: " + advice + "\n";
    for (const auto& [packageId, version] : audit.reinstall)
        text += "to install again: " + packageId + " " + printable(version) + "\n";
    for (const std::string& origin : reference.origins)
        text += "compared with " + printable(origin, 4096) + "\n";
    if (audit.unvouched > 0)
        text += counted(audit.unvouched, "file") + " could not be compared: no completed descriptor lists "
                                                   "them; name a plan or descriptor with --against\n";
    text += options.scope + " scope: " + counted(audit.files, "file") + " in " +
            counted(audit.packages, "package") + ": ";
    if (status == AllRight)
        return text +
               paint.good(audit.packages == 0 ? "nothing is installed"
                                              : "everything is as it was installed") +
               "\n";
    return text +
           (status == Findings ? paint.bad("not as it was installed")
                               : paint.doubtful("nothing wrong, as far as could be compared")) +
           "\n";
}

} // namespace

Answer runVerify(const VerifyOptions& options, bool json, const Terminal& terminal)
{
    const Registrations registrations = readRegistrations(options.scope);
    std::vector<std::string> unreadable;
    const Reference reference = referenceFor(options, registrations, unreadable);
    Audit audit = auditScope(options.scope, registrations, reference, terminal.progress);
    audit.unreadable.insert(audit.unreadable.begin(), unreadable.begin(), unreadable.end());
    const int status = statusOf(audit, registrations);
    return {status,
            json ? jsonText(auditJson(options, audit, reference, status))
                 : auditText(options, audit, reference, status, terminal.out),
            {}};
}

} // namespace maintenance::kit
