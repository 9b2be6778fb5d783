#pragma once

namespace maintenance::kit {

/// Runs the one command that the arguments name and returns the exit status. Throws nothing.
int runProgram(int argumentCount, const char* const* arguments);

} // namespace maintenance::kit
