#pragma once

#include "common/files.h"
#include "rehearse/mounts.h"

#include <string>
#include <vector>

/// A stand-in that is copied into the root, opened before the machine's files are out of sight.
struct StandIn {
    std::string place; ///< where it lies in the root
    OwnedFd content;
};

using StandIns = std::vector<StandIn>;

/// Opens the stand-ins in the directory of this program; throws Failure 125 "cannot open PATH: reason".
StandIns openStandIns();

/// Writes everything into the root that is not there on the machine: accounts, homes, the directories for all
/// users, receipts, logs, the console account and the stand-ins. Throws Failure 125.
///
/// root      prepared and not yet entered
/// standIns  borrowed
/// console   user id in decimal digits, "none" or "absent"
void furnish(const Root& root, const StandIns& standIns, const std::string& console);
