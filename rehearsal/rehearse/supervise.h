#pragma once

#include "rehearse/furnish.h"
#include "rehearse/options.h"

/// Runs the command in a new root and returns the exit status of rehearse.
///
/// Three processes take part. This one waits and passes signals on. Its child is the first process of a
/// process-id namespace of its own and makes the root; it dies when this process dies, and every process in
/// the root dies with it, and with the last of them the mounts and the memory. Its child is the command.
/// Throws Failure; the child prints its own and ends with its status.
int superviseCommand(const Options& options, const StandIns& standIns);
