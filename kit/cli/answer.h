#pragma once

#include <string>

namespace maintenance::kit {

/// What a command has to say.
struct Answer {
    int status = 0;
    /// For standard output.
    std::string out;
    /// For standard error.
    std::string err;
};

} // namespace maintenance::kit
