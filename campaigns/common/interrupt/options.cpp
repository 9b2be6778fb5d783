#include "interrupt/options.h"

#include "common/text.h"

#include <cerrno>
#include <map>
#include <stdexcept>

namespace {

[[noreturn]] void wrongUsage(const std::string& line)
{
    throw std::runtime_error(line + " (see interrupt --help)");
}

unsigned long numberFrom(const std::string& text)
{
    const auto value = number(text);
    if (!value)
        wrongUsage("\"" + text + "\" is not a number");
    return *value;
}

int errorNamed(const std::string& name)
{
    static const std::map<std::string, int> errors = {
        {"EACCES", EACCES}, {"EAGAIN", EAGAIN}, {"EDQUOT", EDQUOT}, {"EINTR", EINTR},   {"EIO", EIO},
        {"ELOOP", ELOOP},   {"EMFILE", EMFILE}, {"ENFILE", ENFILE}, {"ENOLCK", ENOLCK}, {"ENOMEM", ENOMEM},
        {"ENOSPC", ENOSPC}, {"EPERM", EPERM},   {"EROFS", EROFS},
    };
    const auto found = errors.find(name);
    if (found == errors.end())
        wrongUsage("unknown error " + name);
    return found->second;
}

Point pointFrom(const std::string& text)
{
    const std::vector<std::string> parts = split(text, ':');
    if (parts.size() < 3)
        wrongUsage("a point is KIND:NUMBER:DEED, not " + text);
    const auto kind = kindNamed(parts[0]);
    if (!kind)
        wrongUsage("unknown kind of call " + parts[0]);
    Point point{*kind, numberFrom(parts[1]), Deed::Fail, 0, false};
    const std::string& deed = parts[2];
    if (deed == "before" || deed == "after" || deed == "all")
        point.deed = deed == "before" ? Deed::KillBefore : deed == "after" ? Deed::KillAfter : Deed::KillAll;
    else if (deed == "short" || deed == "shorts")
        point.deed = Deed::Shorten;
    else if ((deed == "error" || deed == "errors") && parts.size() == 4)
        point.error = errorNamed(parts[3]);
    else
        wrongUsage("unknown deed in " + text);
    point.onwards = deed == "shorts" || deed == "errors";
    return point;
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
        if (option == "--at")
            options.points.push_back(pointFrom(value(option)));
        else if (option == "--record")
            options.record = true;
        else if (option == "--report")
            options.report = value(option);
        else if (option == "--contents")
            options.record = options.contents = true;
        else if (option == "--user")
            options.user = static_cast<uid_t>(numberFrom(value(option)));
        else if (option == "--group")
            options.group = static_cast<gid_t>(numberFrom(value(option)));
        else if (option == "--seconds")
            options.seconds = static_cast<unsigned>(numberFrom(value(option)));
        else
            wrongUsage("unknown option " + option);
    }
    options.command.assign(arguments + next, arguments + count);
    if (options.command.empty())
        wrongUsage("no command to run");
    return options;
}

const char* helpText()
{
    return R"(usage: interrupt [options] [--] command [arguments...]

Runs the command and interferes with its system calls. Only the command itself is counted, from the first call
of its own on; processes that it starts are not.

  --at KIND:NUMBER:DEED  what happens to the call of that number among the calls of its kind, from 1 on; may
                         be repeated. KIND is change (what is on disk, a lock, the start of a process), access
                         (whatever else can fail) or memory. DEED is
                           before        kill the process at the call's entry; it does not take effect
                           after         kill the process at the call's exit
                           all           the same, with every process that it has started
                           error:NAME    skip the call and report that error
                           errors:NAME   the same for this and every later call of the kind that can report it
                           short         read or write only half
                           shorts        the same for this and every later call of the kind
  --report FILE          write what happened to FILE, one line each, fields separated by tabs
  --record               list every call in the report
  --contents             the same, and after each change what it has left in the place where it acted
  --user UID --group GID run the command as that account
  --seconds N            a run that takes longer counts as hanging and is killed; default 60

Lines of the report: "call" and "hit" with kind, number, name, what it acts on and (call only) its result;
"left" after a "call" that succeeded, with type, mode, owner, group and content of what stands there then;
"open" with a descriptor that was still open at the end and what it led to; "running" with a process that the
command had started and not waited for when it ended; "inherited" with a descriptor that a started program got
beside its standard ones and what it leads to; "counts" with the number of calls of each kind that was watched;
"ended" with "exit" and a status, "signal" and a number, "killed", or "hung".

Exit status: 0 if the run took place, 1 if not.
)";
}
