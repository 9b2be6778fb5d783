#include "installer/scripts.h"

#include "common/files.h"
#include "common/text.h"
#include "installer/failure.h"
#include "installer/process.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>

namespace {

// The account at the console, or the running one. The real installer tells scripts that run as root about the
// console account as well, so scripts that trust these variables show it here.
std::vector<std::string> accountVariables(const Target& target)
{
    uid_t uid = target.uid;
    for (const std::string& line : lines(readFile("/run/systemd/seats/seat0").value_or(""))) {
        const std::string name = "ACTIVE_UID=";
        if (target.path != "/" || !line.starts_with(name))
            continue;
        uid = static_cast<uid_t>(number(line.substr(name.size())).value_or(uid));
    }
    const passwd* account = ::getpwuid(uid);
    if (account == nullptr)
        return {"HOME=/", "USER=root", "LOGNAME=root"};
    const std::string name = account->pw_name;
    return {"HOME=" + std::string(account->pw_dir), "USER=" + name, "LOGNAME=" + name};
}

void logLine(const std::string& line)
{
    const OwnedFd log(::open("/var/log/install.log", O_WRONLY | O_APPEND | O_CLOEXEC));
    if (log)
        writeAll(log.get(), line + "\n");
}

void runScript(const std::string& name, const Component& component, const Request& request)
{
    const std::string script = component.scripts + "/" + name;
    const std::string destination = request.target.at(component.location);
    std::vector<std::string> environment = accountVariables(request.target);
    environment.insert(environment.end(),
                       {"PATH=/bin:/sbin:/usr/bin:/usr/sbin:/usr/libexec", "SHELL=/bin/sh",
                        "SCRIPT_NAME=" + name, "PACKAGE_PATH=" + request.package, "DSTROOT=" + destination,
                        "DSTVOLUME=" + request.target.path, "INSTALL_PKG_SESSION_ID=" + component.identifier,
                        "INSTALLER_TEMP=" + component.scripts});
    const int status = runProgram(
        {script, request.package, destination, request.target.path, "/"}, environment, component.scripts,
        [&](const std::string& line) { logLine(component.identifier + " ./" + name + ": " + line); });
    if (status != 0) {
        throw Failure("The install failed: " + name + " of " + component.identifier + " ended with status " +
                      std::to_string(status) + ".");
    }
}

} // namespace

void runScripts(const std::string& name, const std::vector<Component>& components, const Request& request)
{
    for (const Component& component : components) {
        struct stat status {};
        if (component.scripts.empty())
            continue;
        if (::stat((component.scripts + "/" + name).c_str(), &status) == 0)
            runScript(name, component, request);
    }
}
