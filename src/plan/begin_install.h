#pragma once

#include "plan/descriptor.h"
#include "plan/plan.h"

#include <string>

namespace maintenance {

/// Carries out begin-install: turns the transaction plan beside the running executable into a descriptor in
/// the scope's inbox and records a pending attempt. Run again for the same plan it finds the attempt, proves
/// that nothing changed, and publishes the descriptor if it is missing.
///
/// returns  the transaction identifier, which is also the descriptor's
/// throws   Invalid "cannot resolve the maintenance executable"
///          Invalid "pending installation attempt is unsafe"
///          Invalid "another maintenance transaction is active"
///          Invalid "pending installation attempt is bound to another plan"
///          Invalid "pending installation descriptor was rebound"
///          Invalid "completed installation recovery state changed"
///          Invalid "pending installation descriptor state changed"
///          Invalid "materialized maintenance descriptor is unsafe"  it cannot be examined, or the plan gives
///                  one that could not be loaded
///          what parsePlan, validateLayout, Locks, materializeDescriptor, readPending, readFixedRegular,
///          recoverCompleted and atomicWriteFixed throw
std::string beginInstall(const std::string& scope);

/// Makes the descriptor that installs a plan in a scope, under a transaction identifier.
///
/// throws  Invalid "scope migration requires an explicit trusted decision"  a product is in the other scope
///         Invalid "target-side downgrade is refused"
///         Invalid "pkgutil receipt evidence is incomplete"  pkgutil says now this, now that of a product
///         what rejectCommonDowngrade and installed throw
Descriptor materializeDescriptor(const Plan& plan, const std::string& scope, const std::string& id);

} // namespace maintenance
