#include "transaction/transaction_scopes.h"

#include "fs/scope.h"

namespace maintenance {

std::string authorityScope(const Descriptor& descriptor)
{
    return descriptor.sourceScope == "system" ? "system" : descriptor.targetScope;
}

std::vector<std::string> involvedScopes(const Descriptor& descriptor)
{
    if (descriptor.sourceScope == "none")
        return {descriptor.targetScope};
    return {descriptor.sourceScope, descriptor.targetScope};
}

std::filesystem::path transactionRoot(const Descriptor& descriptor)
{
    return maintenanceRoot(authorityScope(descriptor)) / "Transactions" / descriptor.id;
}

std::filesystem::path completedPath(const Descriptor& descriptor)
{
    return maintenanceRoot(authorityScope(descriptor)) / "Completed" / (descriptor.id + ".record");
}

std::filesystem::path preparedPath(const std::filesystem::path& transactionDirectory)
{
    return transactionDirectory / "prepared";
}

} // namespace maintenance
