#pragma once

#include "kit/machine/transaction_view.h"

namespace maintenance::kit {

/// Adds to a transaction, whose state is known, the exact commands that finish or undo it, and what there is
/// to know before one runs them.
///
/// descriptor  the transaction's descriptor; a null pointer when it cannot be read
void addWaysOut(const MachineView& machine, TransactionView& transaction, const Descriptor* descriptor);

/// Returns a command of the tool as a shell takes it: with the rights that its scopes need.
///
/// scopes  the scopes that are involved
std::string toolCommand(const MachineView& machine, const std::vector<std::string>& scopes,
                        const std::string& command, const std::string& scope, const std::string& id);

} // namespace maintenance::kit
