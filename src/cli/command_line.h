#pragma once

namespace maintenance {

/// Runs the one command that the arguments name, writes its result to standard output or a failure's message
/// to standard error, and returns the exit status: 0, 64 (usage, silent), 65 (Invalid), 66 (the named
/// descriptor cannot be located) or 70 (any other failure). Throws nothing.
///
/// argumentCount, arguments  as main receives them, the program's name first; borrowed
int runCommandLine(int argumentCount, char** arguments);

} // namespace maintenance
