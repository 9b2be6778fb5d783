#pragma once

#include "plan/descriptor.h"

namespace maintenance {

/// Tells whether the packages that the descriptor names are registered in every involved scope as they were
/// when the transaction was prepared. Throws what registrationsMatchSnapshot throws.
bool registrationsUnchanged(const Descriptor& descriptor);

/// Puts every involved scope back into the state that the transaction's snapshots captured: files of the
/// descriptor's packages, its target files, product records and index. Proves first that all of it can be
/// put back. Restored files have mode 0600. May be repeated after an interruption.
///
/// throws  Invalid "receipt snapshot manifest is missing", "receipt snapshot manifest is invalid"
///         Invalid "transaction source is missing or unsafe"  a snapshot copy is gone
///         Invalid "transaction source hash is wrong"         a snapshot copy is not what the manifest says
///         (nothing was changed so far)
///         what pkgutilReceipts, removeOwned, copyFixed, removeFixedPath and copyTree throw
void restore(const Descriptor& descriptor);

} // namespace maintenance
