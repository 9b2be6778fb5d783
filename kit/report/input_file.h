#pragma once

#include <cstddef>
#include <string>
#include <sys/stat.h>

namespace maintenance::kit {

/// A file that was read whole.
struct InputFile {
    std::string content;
    /// Its status when it was opened; links were followed.
    struct stat status;
};

/// Reads a file that the user has named.
///
/// path     "-" is standard input
/// largest  the most bytes that are read
/// throws   Failure (NoInput) when it is not there, cannot be read or is no file; Failure (Findings) when it
/// is
///          larger
InputFile readInputFile(const std::string& path, std::size_t largest);

} // namespace maintenance::kit
