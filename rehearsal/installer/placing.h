#pragma once

#include "installer/package.h"
#include "installer/switches.h"

/// Puts the payloads of all components into their place, replacing each file by a rename, and then removes
/// the files of older receipts of the same identifiers that no payload has. Directories that are there
/// already keep owner and mode; new ones and all files belong to the target's account. Not atomic: on a
/// Failure, and when a switch stops it, what was placed stays.
void placePayloads(const std::vector<Component>& components, const Target& target, const Switches& switches);
