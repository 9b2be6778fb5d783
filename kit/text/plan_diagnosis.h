#pragma once

#include "kit/report/finding.h"

#include <string>
#include <string_view>

namespace maintenance::kit {

/// Says everything that is wrong with the text of a plan, line by line. There is an error exactly where the
/// tool refuses the plan: when it parses it, or when begin-install makes a descriptor of it where nothing is
/// installed. Warnings are about what the tool accepts and an installation would suffer from.
///
/// place  the file's name
FindingList diagnosePlan(std::string_view text, const std::string& place);

} // namespace maintenance::kit
