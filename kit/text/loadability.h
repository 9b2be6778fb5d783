#pragma once

#include "kit/report/finding.h"
#include "plan/plan.h"

#include <string>

namespace maintenance::kit {

/// Says why begin-install could not make a descriptor of a plan that later commands load: errors where it
/// could not even where nothing is installed, warnings where it may not be able to once products are
/// installed.
///
/// place    the plan file's name
/// returns  findings without a line; the text is the descriptor's line
FindingList loadabilityFindings(const Plan& plan, const std::string& place);

} // namespace maintenance::kit
