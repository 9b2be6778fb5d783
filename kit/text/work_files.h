#pragma once

#include "kit/text/tool_file.h"
#include "plan/descriptor.h"

namespace maintenance::kit {

// The files that say what is to be done. Each throws Invalid with the tool's message for content that the
// tool refuses.

ToolFile showPlan(std::string_view text, const Paint& paint);

/// `id` is empty when it is not known; the canonical digest, of which it is a part, is left out then.
ToolFile showDescriptor(std::string_view text, const std::string& id, const Paint& paint);

/// Returns the scope that a descriptor's text names as its target; "user" when it names none.
std::string targetScopeOf(std::string_view text);

} // namespace maintenance::kit
