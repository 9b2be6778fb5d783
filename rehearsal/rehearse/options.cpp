#include "rehearse/options.h"

#include "common/text.h"
#include "rehearse/failure.h"

#include <cstdlib>
#include <memory>

namespace {

[[noreturn]] void wrongUsage(const std::string& line)
{
    throw Failure(statusFailed, line + " (see rehearse --help)");
}

std::string consoleFrom(const std::string& value)
{
    if (value != "none" && value != "absent" && !number(value)) {
        wrongUsage("--console takes a user id, none or absent");
    }
    return value;
}

std::string sizeFrom(const std::string& value)
{
    const bool unit = !value.empty() && std::string("kmg").find(value.back()) != std::string::npos;
    if (!number(value.substr(0, value.size() - (unit ? 1 : 0)))) {
        wrongUsage("--size takes a number that may end in k, m or g");
    }
    return value;
}

std::string shareFrom(const std::string& value)
{
    const std::unique_ptr<char, decltype(&std::free)> path(::realpath(value.c_str(), nullptr), &std::free);
    if (!path)
        throw Failure(statusFailed, "cannot share " + value + ": " + std::strerror(errno));
    if (std::string(path.get()) == "/")
        wrongUsage("--share / would leave nothing to throw away");
    return path.get();
}

} // namespace

Options readOptions(int count, char** arguments)
{
    Options options;
    int next = 1;
    const auto value = [&](const std::string& option) -> std::string {
        if (next == count)
            wrongUsage(option + " needs a value");
        return arguments[next++];
    };
    while (next < count && arguments[next][0] == '-') {
        const std::string option = arguments[next++];
        if (option == "--")
            break;
        if (option == "--user") {
            options.user = value(option);
        } else if (option == "--console") {
            options.console = consoleFrom(value(option));
        } else if (option == "--size") {
            options.size = sizeFrom(value(option));
        } else if (option == "--own-devices") {
            options.ownDevices = true;
        } else if (option == "--share") {
            options.shares.push_back(shareFrom(value(option)));
        } else if (option == "--help") {
            options.help = true;
            return options;
        } else {
            wrongUsage("unknown option " + option);
        }
    }
    if (next == count)
        wrongUsage("no command to run");
    options.command.assign(arguments + next, arguments + count);
    options.command.push_back(nullptr);
    return options;
}

const char* helpText()
{
    return R"(usage: rehearse [options] [--] command [arguments...]

Runs the command in a throw-away root: the machine's files, with everything written kept in memory, the
accounts player (uid 501) and other (uid 502), and stand-ins for pkgutil and installer in /usr/sbin.

  --user NAME        run the command as that account of the root; default: as root
  --console UID      the account at the console; default 501
  --console none     a login manager runs, nobody is at the console
  --console absent   no login manager at all
  --size SIZE        room for everything written inside, such as 64m; default 512m
  --own-devices      /Library and /Users become file systems of their own
  --share DIR        DIR is the machine's own, writable directory; may be repeated
  --help             print this

Exit status: the command's, or 128 plus the signal that ended it; 77 if no such root can be made here;
125 for wrong usage and other failures; 126 or 127 if the command cannot be run or is not there.
)";
}
