#pragma once

#include "kit/report/paint.h"

#include <optional>
#include <string>
#include <string_view>

namespace maintenance::kit {

/// What the standard streams lead to.
struct Terminal {
    Paint out;
    Paint err;
    /// Standard error is a terminal that can rewrite its line.
    bool progress = false;
};

/// Examines the standard streams. Colours only on a terminal that is not "dumb", and never with NO_COLOR set
/// to anything but the empty text; progress only on a terminal, and not when `quiet`.
Terminal examineTerminal(bool quiet);

/// Returns the value of an environment variable, or nothing.
std::optional<std::string> environmentVariable(std::string_view name);

/// Writes all of `text` to an open descriptor (borrowed); false when it does not take it.
bool writeWhole(int descriptor, std::string_view text);

} // namespace maintenance::kit
