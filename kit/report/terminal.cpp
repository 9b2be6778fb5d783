#include "kit/report/terminal.h"

#include "fs/publish.h"

#include <unistd.h>

extern char** environ;

namespace maintenance::kit {

std::optional<std::string> environmentVariable(std::string_view name)
{
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view variable = *entry;
        if (variable.starts_with(name) && variable.substr(name.size()).starts_with('='))
            return std::string(variable.substr(name.size() + 1));
    }
    return std::nullopt;
}

Terminal examineTerminal(bool quiet)
{
    const bool capable = environmentVariable("TERM").value_or("dumb") != "dumb";
    const bool plain = !environmentVariable("NO_COLOR").value_or("").empty();
    const auto isCapable = [&](int stream) { return capable && ::isatty(stream) == 1; };
    return {{!plain && isCapable(STDOUT_FILENO)},
            {!plain && isCapable(STDERR_FILENO)},
            !quiet && isCapable(STDERR_FILENO)};
}

bool writeWhole(int descriptor, std::string_view text) { return text.empty() || writeAll(descriptor, text); }

} // namespace maintenance::kit
