#include "transaction/prepared_state.h"

#include "fs/fixed_file.h"
#include "fs/generation.h"
#include "fs/sha256.h"
#include "transaction/transaction_scopes.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/record_fields.h"

namespace maintenance {

namespace {

constexpr std::string_view preparedSchema = "tamarind.pelican.macos-maintenance.prepared.v1";
constexpr const char* subject = "prepared transaction state";
constexpr std::size_t fieldCount = 7;

constexpr const char* refusal = "prepared transaction state is invalid";

} // namespace

std::string preparedText(const PreparedState& state)
{
    return "schema=" + std::string(preparedSchema) + "\ntransaction=" + state.transaction +
           "\ngeneration=" + state.generation + "\ndescriptorSha256=" + state.descriptorSha256 +
           "\ncanonicalSha256=" + state.canonicalSha256 + "\nsourceScope=" + state.sourceScope +
           "\ntargetScope=" + state.targetScope + "\n";
}

PreparedState bindingState(const Descriptor& descriptor)
{
    return {descriptor.id,          generation(),
            descriptor.fileSha256,  sha256OfText(canonical(descriptor)),
            descriptor.sourceScope, descriptor.targetScope};
}

PreparedState parsePreparedText(std::string_view text)
{
    const RecordFields fields = readRecordFields(text, fieldCount, refusal);
    if (takeField(fields, "schema", refusal) != preparedSchema)
        throw Invalid(refusal);
    PreparedState state{
        takeField(fields, "transaction", refusal),      takeField(fields, "generation", refusal),
        takeField(fields, "descriptorSha256", refusal), takeField(fields, "canonicalSha256", refusal),
        takeField(fields, "sourceScope", refusal),      takeField(fields, "targetScope", refusal)};
    const bool valid = safeId(state.transaction) && isDigest(state.generation) &&
                       isDigest(state.descriptorSha256) && isDigest(state.canonicalSha256);
    if (!valid)
        throw Invalid(refusal);
    return state;
}

PreparedState parsePrepared(const std::filesystem::path& path, const std::string& scope)
{
    return parsePreparedText(readText(path, scope, subject));
}

void requireStateBinding(const Descriptor& descriptor, const PreparedState& state)
{
    const bool bound = state.transaction == descriptor.id && state.sourceScope == descriptor.sourceScope &&
                       state.targetScope == descriptor.targetScope &&
                       state.descriptorSha256 == descriptor.fileSha256 &&
                       state.canonicalSha256 == sha256OfText(canonical(descriptor));
    if (!bound)
        throw Invalid("prepared transaction descriptor binding changed");
}

PreparedState verifyPrepared(const Descriptor& descriptor, const std::filesystem::path& transactionDirectory)
{
    const std::string stored =
        readText(preparedPath(transactionDirectory), authorityScope(descriptor), subject);
    PreparedState state = parsePreparedText(stored);
    requireStateBinding(descriptor, state);
    const std::string text = preparedText(state);
    constexpr const char* stale = "durable transaction lease generation is stale or rebound";
    // A prepared file that merely parses to the same state was not written by this tool.
    if (stored != text)
        throw Invalid(stale);
    for (const std::string& scope : involvedScopes(descriptor))
        if (readLease(scope) != text)
            throw Invalid(stale);
    return state;
}

std::string readLease(const std::string& scope)
{
    return readText(activePath(scope), scope, "durable transaction lease");
}

} // namespace maintenance
