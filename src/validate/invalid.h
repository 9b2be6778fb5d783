#pragma once

#include <stdexcept>

namespace maintenance {

/// The one error type for rejected data, state or file-system conditions, built from a fixed message.
/// The command line turns it into that message and exit status 65; every other exception ends with 70.
class Invalid : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace maintenance
