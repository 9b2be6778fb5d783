#include "pkgutil/arguments.h"

#include "common/text.h"

std::optional<Call> readCall(int count, char** arguments)
{
    Call call{"", "", "/"};
    for (int next = 1; next < count; ++next) {
        const std::string argument = arguments[next];
        const bool isVolume = argument == "--volume";
        const bool takesIdentifier =
            argument == "--pkg-info" || argument == "--files" || argument == "--forget";
        if ((isVolume || takesIdentifier) && ++next == count)
            return std::nullopt;
        if (isVolume) {
            call.volume = withoutEndSlash(arguments[next]);
            continue;
        }
        if (!call.command.empty())
            return std::nullopt;
        if (takesIdentifier) {
            call.command = argument;
            call.subject = arguments[next];
        } else if (argument == "--pkgs") {
            call.command = argument;
        } else if (argument.starts_with("--pkgs=")) {
            call.command = "--pkgs=";
            call.subject = argument.substr(call.command.size());
        } else {
            return std::nullopt;
        }
    }
    if (call.command.empty() || call.volume.empty())
        return std::nullopt;
    return call;
}
