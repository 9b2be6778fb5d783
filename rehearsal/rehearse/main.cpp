// Runs a command in a throw-away root; see options.cpp for its help and ../README.md for what the root holds.

#include "rehearse/failure.h"
#include "rehearse/supervise.h"

#include <cstdio>

int main(int count, char** arguments)
{
    try {
        const Options options = readOptions(count, arguments);
        if (options.help) {
            std::fputs(helpText(), stdout);
            return 0;
        }
        return superviseCommand(options, openStandIns());
    } catch (const Failure& failure) {
        std::fprintf(stderr, "rehearse: %s\n", failure.what());
        return failure.status;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "rehearse: %s\n", error.what());
        return statusFailed;
    }
}
