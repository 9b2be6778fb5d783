#pragma once

#include "kit/report/finding.h"

#include <string>
#include <string_view>

namespace maintenance::kit {

/// Says everything that is wrong with the text of a descriptor, line by line. There is an error exactly where
/// the tool refuses the descriptor as one stored in the inbox of `scope`.
///
/// place  the file's name
/// scope  "user" or "system"
FindingList diagnoseDescriptor(std::string_view text, const std::string& place, const std::string& scope);

} // namespace maintenance::kit
