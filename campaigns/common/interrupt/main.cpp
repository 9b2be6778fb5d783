#include "common/files.h"
#include "interrupt/options.h"
#include "interrupt/tracee.h"

#include <cstdio>
#include <string_view>

int main(int count, char** arguments)
{
    if (count == 2 && std::string_view(arguments[1]) == "--help") {
        std::fputs(helpText(), stdout);
        return 0;
    }
    try {
        const Options options = readOptions(count, arguments);
        const std::string report = Tracee(options).run();
        if (!options.report.empty() && !writeFile(options.report, report, 0600))
            failed("cannot write " + options.report);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "interrupt: %s\n", error.what());
        return 1;
    }
}
