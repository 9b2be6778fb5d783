#pragma once

#include "installer/package.h"

/// Runs the script called `name` of each component that has one, one after the other, and logs what they
/// print in /var/log/install.log. Throws Failure, without running the remaining ones, when one does not exit
/// with 0.
void runScripts(const std::string& name, const std::vector<Component>& components, const Request& request);
