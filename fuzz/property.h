#pragma once

#include "validate/invalid.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace maintenance::fuzz {

/// Ends the run as a finding where a property does not hold.
inline void require(bool holds, const char* property)
{
    if (holds)
        return;
    std::fprintf(stderr, "this does not hold: %s\n", property);
    std::abort();
}

/// Tells whether `call` ends without a refusal. A refusal is as good an answer as any; every other exception
/// passes on and ends the run as a finding.
template <typename Call> bool accepts(const Call& call)
{
    try {
        call();
        return true;
    } catch (const Invalid&) {
        return false;
    }
}

inline std::string_view textOf(const unsigned char* data, std::size_t size)
{
    return {reinterpret_cast<const char*>(data), size};
}

} // namespace maintenance::fuzz
