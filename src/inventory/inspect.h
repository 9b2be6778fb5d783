#pragma once

#include "plan/descriptor.h"

#include <string>

namespace maintenance {

/// Tells what kind of maintenance a descriptor calls for on this machine; changes nothing on disk.
///
/// returns  {"status":"<word>"} and a line feed; the word is "upgrade", "repair", "move-required" or "clean"
/// throws   Invalid "target-side downgrade is refused"
///          Invalid "product exists in the opposite scope"
///          Invalid "manual installation collision requires adopt or replace"
///          what installed throws; std::system_error when a target path can neither be examined nor is
///          absent
std::string inspect(const Descriptor& descriptor);

} // namespace maintenance
