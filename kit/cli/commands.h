#pragma once

#include "kit/cli/answer.h"
#include "kit/cli/options.h"
#include "kit/report/terminal.h"

namespace maintenance::kit {

// The commands. Each returns what it has to say and throws Failure where it cannot do its work. With `json`
// the standard output is one JSON value.

Answer runPlan(const PlanOptions& options, bool json, const Terminal& terminal);
Answer runCheck(const CheckOptions& options, bool json, const Terminal& terminal);
Answer runDescriptor(const DescriptorOptions& options, bool json, const Terminal& terminal);
Answer runShow(const ShowOptions& options, bool json, const Terminal& terminal);
Answer runStatus(const StatusOptions& options, bool json, const Terminal& terminal);
Answer runVerify(const VerifyOptions& options, bool json, const Terminal& terminal);
Answer runHistory(const HistoryOptions& options, bool json, const Terminal& terminal);

/// Returns the identifier that a descriptor file's name gives it; empty when the name does not end in
/// ".tpmt".
std::string descriptorIdOf(const std::string& file);

} // namespace maintenance::kit
