#include "plan/begin_install.h"

#include "fs/existence.h"
#include "fs/fixed_directory.h"
#include "fs/fixed_file.h"
#include "fs/generation.h"
#include "fs/locks.h"
#include "fs/publish.h"
#include "fs/sha256.h"
#include "plan/pending_install.h"
#include "platform/executable_path.h"
#include "receipts/products.h"
#include "transaction/recovery.h"
#include "transaction/second_names.h"
#include "transaction/transaction_scopes.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"

#include <system_error>

namespace maintenance {

namespace {

constexpr const char* planName = "transaction-plan.tpmp";
constexpr const char* descriptorSubject = "materialized maintenance descriptor";

std::filesystem::path embeddedPlanPath()
{
    const auto executable = runningExecutablePath();
    if (!executable)
        throw Invalid("cannot resolve the maintenance executable");
    return std::filesystem::canonical(*executable).parent_path() / planName;
}

/// Tells whether something stands at a place; any failure but absence is raised as Invalid `unsafe`.
bool standsSafely(const FixedPlace& place, const char* unsafe)
{
    try {
        return somethingStandsAt(absolutePath(place));
    } catch (const std::system_error&) {
        throw Invalid(unsafe);
    }
}

/// The text of the descriptor that a plan gives, as it is published.
struct Materialized {
    std::string text;
    std::string sha256;
};

/// Renders the plan's descriptor and proves that every later command will be able to load it.
Materialized materialize(const Plan& plan, const std::string& scope, const std::string& id)
{
    constexpr const char* unsafe = "materialized maintenance descriptor is unsafe";
    std::string text = descriptorText(materializeDescriptor(plan, scope, id));
    if (text.size() > static_cast<std::size_t>(largestMetadata))
        throw Invalid(unsafe);
    try {
        std::string digest = parseDescriptorText(text, scope, id).fileSha256;
        return {std::move(text), std::move(digest)};
    } catch (const Invalid&) {
        throw Invalid(unsafe);
    }
}

std::string beginAttempt(const Plan& plan, const std::string& scope)
{
    if (somethingStandsAt(activePath(scope)))
        throw Invalid("another maintenance transaction is active");
    std::string id = "install-" + generation();
    const Materialized made = materialize(plan, scope, id);
    atomicWriteFixed(pendingInstallPlace(scope), pendingInstallText({plan.sku, plan.packageRevision, id,
                                                                     plan.sha256, made.sha256, scope}));
    atomicWriteFixed(descriptorPlace(scope, id), made.text);
    return id;
}

PendingInstall readBoundAttempt(const Plan& plan, const std::string& scope)
{
    PendingInstall attempt = readPending(scope);
    const bool bound = attempt.sku == plan.sku && attempt.packageRevision == plan.packageRevision &&
                       attempt.planSha256 == plan.sha256 && attempt.targetScope == scope;
    if (!bound)
        throw Invalid("pending installation attempt is bound to another plan");
    return attempt;
}

/// Returns the text of the attempt's descriptor as it was published.
std::string readBoundDescriptor(const PendingInstall& attempt)
{
    std::string text =
        readFixedRegular(descriptorPlace(attempt.targetScope, attempt.transaction), descriptorSubject);
    if (sha256OfText(text) != attempt.descriptorSha256)
        throw Invalid("pending installation descriptor was rebound");
    return text;
}

bool isCompleted(const PendingInstall& attempt)
{
    const std::string record = "Completed/" + attempt.transaction + ".record";
    return somethingStandsAt(maintenanceRoot(attempt.targetScope) / record);
}

void finishCompleted(const PendingInstall& attempt)
{
    const Descriptor descriptor =
        parseDescriptorText(readBoundDescriptor(attempt), attempt.targetScope, attempt.transaction);
    if (!recoverCompleted(descriptor))
        throw Invalid("completed installation recovery state changed");
}

/// Requires a product's version, or absence, as it was looked up to be what the run was told at first.
void requireSameAnswer(const ReceiptInventory& first, const std::string& product,
                       const std::optional<std::string>& lookedUp)
{
    const auto receipt = first.find(productPackageId(product, "vst3"));
    const bool isSame = receipt == first.end() ? !lookedUp : lookedUp && *lookedUp == receipt->second.version;
    if (!isSame)
        throw Invalid("pkgutil receipt evidence is incomplete");
}

/// Makes sure that the attempt's descriptor is in the inbox and still what the plan gives.
void continueAttempt(const Plan& plan, const PendingInstall& attempt)
{
    const std::string& scope = attempt.targetScope;
    const Materialized made = materialize(plan, scope, attempt.transaction);
    if (made.sha256 != attempt.descriptorSha256)
        throw Invalid("pending installation descriptor state changed");
    const FixedPlace place = descriptorPlace(scope, attempt.transaction);
    if (standsSafely(place, "materialized maintenance descriptor is unsafe"))
        readBoundDescriptor(attempt);
    else
        atomicWriteFixed(place, made.text);
}

} // namespace

std::string beginInstall(const std::string& scope)
{
    const Plan plan = parsePlan(embeddedPlanPath());
    validateLayout(scope);
    const Locks locks({scope});
    removeSecondNames(scope);
    if (!standsSafely(pendingInstallPlace(scope), "pending installation attempt is unsafe"))
        return beginAttempt(plan, scope);
    const PendingInstall attempt = readBoundAttempt(plan, scope);
    if (isCompleted(attempt))
        finishCompleted(attempt);
    else
        continueAttempt(plan, attempt);
    return attempt.transaction;
}

Descriptor materializeDescriptor(const Plan& plan, const std::string& scope, const std::string& id)
{
    Descriptor descriptor{plan.sku, plan.packageRevision, "none", scope, "none", id, {}, {}, {}};
    const ReceiptInventory first = rejectCommonDowngrade(scope, plan.packageRevision);
    const std::string opposite = oppositeScope(scope);
    ProductLookup lookup;
    for (const auto& [product, planned] : plan.products) {
        if (scopeAvailableForDuplicateCheck(opposite) && installed(lookup, opposite, product))
            throw Invalid("scope migration requires an explicit trusted decision");
        const auto present = installed(lookup, scope, product);
        requireSameAnswer(first, product, present);
        if (present && version(*present) > version(planned))
            throw Invalid("target-side downgrade is refused");
        descriptor.products.push_back({product, present.value_or("-"), planned});
    }
    std::size_t files = 0;
    for (const PlanComponent& component : plan.components)
        files += component.targets.size();
    descriptor.files.reserve(files);
    for (const PlanComponent& component : plan.components)
        for (const auto& [path, sha256] : component.targets)
            descriptor.files.push_back(
                {component.product, component.packageId, component.version, sha256, path});
    return descriptor;
}

} // namespace maintenance
