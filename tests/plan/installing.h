#pragma once

#include "support/child.h"
#include "support/scene.h"

/// What an installer package does: placing the program with its plan and beginning an installation.
namespace maintenance::rehearsed {

inline std::filesystem::path planOf(const std::string& scope)
{
    return supportOf(scope) / "transaction-plan.tpmp";
}

/// The program and a plan in their fixed place, about to be run by `account`.
class Installer {
public:
    Installer(std::string scope, const std::string& plan, uid_t account = rootUid) : scope_(std::move(scope))
    {
        surroundings.account = account;
        surroundings.tool = placeTool(scope_, plan, account);
    }

    const std::string& scope() const { return scope_; }

    void replacePlan(const std::string& plan) const
    {
        writeFile(planOf(scope_), plan, {surroundings.account, 0644});
    }

    Outcome begin() const { return run({"begin-install", scope_}, surroundings); }

    Surroundings surroundings;

private:
    std::string scope_;
};

/// Everything in both scopes and the package database except the program itself, whose content would be read
/// again and again.
inline std::vector<std::string> placesBesideTheTool()
{
    std::vector<std::string> places = {"/var/db/receipts"};
    for (const std::string scope : {"user", "system"})
        for (std::filesystem::path way = supportOf(scope) / "TamarindPelicanMaintenance";
             way.has_relative_path(); way = way.parent_path())
            for (const std::string& name : namesIn(way.parent_path()))
                if (way.parent_path() != "/" && name != way.filename())
                    places.push_back(way.parent_path() / name);
    return places;
}

/// Ends the process that makes the system call, before the call has any effect.
inline int killAt(const SystemCall& call)
{
    ::kill(call.process, SIGKILL);
    // Where the answer overtakes the signal, the call must not be carried out.
    return EINTR;
}

/// Requires that an installation was begun and returns its identifier.
inline std::string identifierIn(const Outcome& outcome)
{
    const bool begun = outcome.status == 0 && outcome.err.empty() && outcome.out.ends_with('\n');
    if (!begun)
        throw std::runtime_error("not begun: status " + std::to_string(outcome.status) + ", " + outcome.err);
    return outcome.out.substr(0, outcome.out.size() - 1);
}

/// Runs the program while `decide` decides about some of its system calls, and about those of the programs
/// that it runs.
inline Outcome runStopping(const std::vector<long>& stopped, const Decide& decide, const Arguments& arguments,
                           const Surroundings& surroundings = {})
{
    const Ending ending = stopping(stopped, decide, [&] {
        const Outcome outcome = run(arguments, surroundings);
        return std::to_string(outcome.status) + "\n" + std::to_string(outcome.out.size()) + "\n" +
               outcome.out + outcome.err;
    });
    if (ending.kind != "returned")
        throw std::runtime_error("the run could not be watched: " + ending.kind + " " + ending.text);
    const std::size_t status = ending.text.find('\n');
    const std::size_t size = ending.text.find('\n', status + 1);
    const std::size_t length = std::stoul(ending.text.substr(status + 1, size - status - 1));
    return {std::stoi(ending.text), ending.text.substr(size + 1, length),
            ending.text.substr(size + 1 + length)};
}

/// Runs the program with every system call `number` on the path or name `path` failing.
inline Outcome runFailing(long number, const std::string& path, int error, const Arguments& arguments,
                          const Surroundings& surroundings = {})
{
    return runStopping(
        {number}, [&](const SystemCall& call) { return call.is(number, path) ? error : 0; }, arguments,
        surroundings);
}

/// Runs the program while `meanwhile` happens just before its `nth` system call `number` on `path`.
inline Outcome runWhile(long number, const std::string& path, int nth, const std::function<void()>& meanwhile,
                        const Arguments& arguments, const Surroundings& surroundings = {})
{
    return runStopping(
        {number},
        [&, seen = 0](const SystemCall& call) mutable {
            if (call.is(number, path) && ++seen == nth)
                meanwhile();
            return 0;
        },
        arguments, surroundings);
}

/// Runs the program while `decide` decides about the first reading after it opened `path`.
inline Outcome runWhileReading(const std::string& path, const std::function<int()>& decide,
                               const Arguments& arguments, const Surroundings& surroundings = {})
{
    return runStopping(
        {SYS_openat, SYS_read},
        [&, opened = false](const SystemCall& call) mutable {
            if (call.is(SYS_openat, path))
                opened = true;
            else if (opened && call.number == SYS_read) {
                opened = false;
                return decide();
            }
            return 0;
        },
        arguments, surroundings);
}

} // namespace maintenance::rehearsed
