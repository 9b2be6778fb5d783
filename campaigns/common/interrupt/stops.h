#pragma once

#include "interrupt/calls.h"

#include <set>

/// Lets the kernel stop this process, and every process that it will start, for its tracer at the calls of
/// these kinds, at those that begin or end a program, and at no others. Stopping at every call would take the
/// campaigns several times as long. Needs the right to administer the system; false, and errno, where that is
/// missing.
bool stopAtCallsOf(const std::set<Kind>& kinds);
