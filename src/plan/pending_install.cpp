#include "plan/pending_install.h"

#include "fs/fixed_file.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/record_fields.h"

namespace maintenance {

namespace {

constexpr std::string_view attemptSchema = "tamarind.pelican.macos-maintenance-attempt.v1";
constexpr std::size_t fieldCount = 7;

constexpr const char* refusal = "pending installation attempt is invalid";

} // namespace

FixedPlace pendingInstallPlace(const std::string& scope)
{
    return {scope, std::string(maintenanceDirectory) + "/PendingInstall"};
}

std::string pendingInstallText(const PendingInstall& attempt)
{
    return "schema=" + std::string(attemptSchema) + "\nsku=" + attempt.sku +
           "\npackageRevision=" + attempt.packageRevision + "\nplanSha256=" + attempt.planSha256 +
           "\ndescriptorSha256=" + attempt.descriptorSha256 + "\ntransaction=" + attempt.transaction +
           "\ntargetScope=" + attempt.targetScope + "\n";
}

PendingInstall parsePending(std::string_view text)
{
    const RecordFields fields = readRecordFields(text, fieldCount, refusal);
    if (takeField(fields, "schema", refusal) != attemptSchema)
        throw Invalid(refusal);
    PendingInstall attempt{takeField(fields, "sku", refusal),
                           takeField(fields, "packageRevision", refusal),
                           takeField(fields, "transaction", refusal),
                           takeField(fields, "planSha256", refusal),
                           takeField(fields, "descriptorSha256", refusal),
                           takeField(fields, "targetScope", refusal)};
    const bool valid = safeId(attempt.sku) && safeVersion(attempt.packageRevision) &&
                       safeId(attempt.transaction) && isDigest(attempt.planSha256) &&
                       isDigest(attempt.descriptorSha256) && isScope(attempt.targetScope);
    if (!valid)
        throw Invalid(refusal);
    return attempt;
}

PendingInstall readPending(const std::string& scope)
{
    return parsePending(readFixedRegular(pendingInstallPlace(scope), "pending installation attempt"));
}

} // namespace maintenance
