#pragma once

#include "pkgutil/arguments.h"
#include "pkgutil/behaviour.h"

/// What a call prints and how it exits.
struct Outcome {
    std::string output; ///< for standard output
    std::string errors; ///< for standard error
    int status = 0;
};

/// Does what `call` asks for, in the way `behaviour` wants it: lists or describes receipts, or forgets one.
Outcome obey(const Call& call, const Behaviour& behaviour);
