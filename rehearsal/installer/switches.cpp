#include "installer/switches.h"

#include "common/files.h"
#include "common/text.h"
#include "installer/failure.h"

#include <algorithm>
#include <fnmatch.h>

namespace {

const std::string controlFile = "/etc/installer-stand-in.conf";

bool takeLine(const std::string& line, Switches& switches)
{
    const std::size_t equals = line.find('=');
    const std::string name = line.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : line.substr(equals + 1);
    if (line == "stop-after=half") {
        switches.stopAtHalf = true;
    } else if (name == "stop-after" && number(value)) {
        switches.stopAfter = number(value);
    } else if (line == "receipts=no") {
        switches.receipts = false;
    } else if (name == "skip" && !value.empty()) {
        switches.skipped.push_back(value);
    } else {
        return line.empty() || line[0] == '#';
    }
    return true;
}

} // namespace

bool Switches::skips(const std::string& path) const
{
    return std::any_of(skipped.begin(), skipped.end(), [&](const std::string& pattern) {
        return ::fnmatch(pattern.c_str(), path.c_str(), 0) == 0;
    });
}

Switches readSwitches()
{
    Switches switches;
    const std::optional<std::string> content = readFile(controlFile);
    if (!content && errno != ENOENT)
        failed("cannot read " + controlFile);
    for (const std::string& line : lines(content.value_or(""))) {
        if (!takeLine(line, switches))
            throw Failure(controlFile + ": unknown line \"" + line + "\"", 99);
    }
    return switches;
}
