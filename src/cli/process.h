#pragma once

#include <string_view>

namespace maintenance {

/// Puts the process into a defined state before anything else: descriptors 0, 1 and 2 are open, children can
/// be waited for, a file that grows beyond a limit fails to be written instead of ending the process, and the
/// umask leaves the owner of a new directory all of its rights.
void prepareProcess();

/// Writes a command's result to standard output.
/// Throws std::runtime_error "cannot write standard output" unless all of it was written.
void writeResult(std::string_view result);

/// Writes a message and a line feed to standard error, as far as that is possible.
void writeMessage(std::string_view message);

} // namespace maintenance
