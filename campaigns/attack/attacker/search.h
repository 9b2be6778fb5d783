#pragma once

#include <string>
#include <vector>

// Every secret consists of bytes that nothing else in the searched places holds, so that already one of them
// gives a leak away.

/// Returns the files below `directory` that this process can read and that hold a secret byte.
std::vector<std::string> secretsIn(const std::string& directory);

/// Tells whether the open file `descriptor`, borrowed, holds a secret byte anywhere.
bool holdsSecret(int descriptor);

/// Says on standard output that a secret could be read in `path`.
void sayLeak(const std::string& path);
