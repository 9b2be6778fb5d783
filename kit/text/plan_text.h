#pragma once

#include "plan/descriptor.h"
#include "plan/plan.h"

#include <map>
#include <string>
#include <vector>

namespace maintenance::kit {

/// What a plan file is called beside the tool.
inline constexpr const char* planName = "transaction-plan.tpmp";

/// Returns the one spelling of a plan.
std::string planText(const Plan& plan);

/// Product identifier to the version that is recorded as installed.
using RecordedVersions = std::map<std::string, std::string>;

/// Returns the descriptor that begin-install makes of a plan where nothing of it is installed.
Descriptor freshDescriptor(const Plan& plan, const std::string& scope);

} // namespace maintenance::kit
