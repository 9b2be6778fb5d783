#pragma once

#include "support/child.h"
#include "support/scene.h"

#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <vector>

/// Transactions up to the point where they are prepared.
namespace maintenance::rehearsed {

inline const std::string moveId = "move-1";

/// A product's transactions of every kind: into either scope, and from each into the other.
inline std::vector<Work> everyKind(const Plugin& product)
{
    return {Work("user").brings(product), Work("system").brings(product),
            Work("user").from("system").brings(product), Work("system").from("user").brings(product)};
}

inline std::string kindOf(const Work& work) { return "from " + work.source() + " to " + work.target(); }

/// Runs a command on a transaction.
inline Outcome command(const std::string& word, const Work& work, const std::string& id = moveId,
                       const Surroundings& surroundings = {})
{
    return run({word, work.target(), id}, surroundings);
}

inline Outcome prepareMove(const Work& work, const std::string& id = moveId,
                           const Surroundings& surroundings = {})
{
    return command("prepare-move", work, id, surroundings);
}

inline std::filesystem::path directoryOf(const Work& work, const std::string& id = moveId)
{
    return transactionOf(work.authority(), id);
}

inline std::filesystem::path preparedOf(const Work& work, const std::string& id = moveId)
{
    return directoryOf(work, id) / "prepared";
}

inline std::filesystem::path completedOf(const Work& work, const std::string& id = moveId)
{
    return completedOf(work.authority(), id);
}

/// Takes both scopes back to where nothing of the maker's was ever installed.
inline void clearScene()
{
    for (const std::string scope : {"user", "system"}) {
        removeAll(supportOf(scope));
        removeAll(rootOf(scope) / "Library/Audio");
    }
    removeAll("/Users/player/Library/Receipts");
    for (const std::string& name : namesIn("/var/db/receipts"))
        if (name.starts_with("com.tamarindpelican."))
            removeAll("/var/db/receipts/" + name);
}

/// Installs the product and the shared package in the transaction's source scope, where it has one.
inline void installSource(const Work& work, const Plugin& product)
{
    if (work.source() == "none")
        return;
    install(work.source(), commonPackage());
    install(work.source(), product);
}

/// Publishes and prepares a transaction, which must succeed; returns its prepared text.
inline std::string bringToPrepared(const Work& work, const std::string& id = moveId)
{
    publish(work, id);
    const Outcome outcome = prepareMove(work, id);
    if (outcome != succeeded())
        throw std::runtime_error("not prepared: " + outcome.err);
    return readFile(preparedOf(work, id));
}

/// Puts `text` into every lease of the transaction.
inline void plantLeases(const Work& work, const std::string& text)
{
    for (const std::string& scope : work.involved())
        writeFile(leaseOf(scope), text, {ownerOf(scope), 0600});
}

inline void plantPrepared(const Work& work, const std::string& text, const std::string& id = moveId)
{
    const uid_t owner = ownerOf(work.authority());
    makeDirectories(directoryOf(work, id), {owner, 0700});
    writeFile(preparedOf(work, id), text, {owner, 0600});
}

inline void plantCompleted(const Work& work, const std::string& text, const std::string& id = moveId)
{
    writeFile(completedOf(work, id), text, {ownerOf(work.authority()), 0600});
}

/// Lays out a published transaction without snapshots, whose prepared file and leases hold `text`.
inline void plantTransaction(const Work& work, const std::string& text, const std::string& id = moveId)
{
    publish(work, id);
    plantPrepared(work, text, id);
    plantLeases(work, text);
}

/// `text` with the value of one line exchanged.
inline std::string withField(const std::string& text, const std::string& key, const std::string& value)
{
    const std::string old = key + "=" + fieldOf(text, key) + "\n";
    std::string changed = text;
    return changed.replace(changed.find(old), old.size(), key + "=" + value + "\n");
}

/// `text` with the lines in the opposite order.
inline std::string reversed(const std::string& text)
{
    std::string changed;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\n', start) + 1;
        changed.insert(0, text.substr(start, end - start));
        start = end;
    }
    return changed;
}

/// What differs from `before` apart from the lock files that every changing command makes.
inline std::string changesSince(const Tree& before)
{
    Tree then = before;
    Tree now = takeTree();
    for (const std::string scope : {"user", "system"})
        for (Tree* tree : {&then, &now})
            tree->erase(lockOf(scope).native());
    return difference(then, now);
}

/// The path of the file whose descriptor is the call's first argument.
inline std::string fileOf(const SystemCall& call)
{
    const std::string number = std::to_string(call.arguments.at(0));
    return std::filesystem::read_symlink("/proc/" + std::to_string(call.process) + "/fd/" + number).native();
}

/// Tells whether the program itself makes the call, and not what it runs.
inline bool isTools(const SystemCall& call)
{
    const std::string executable = "/proc/" + std::to_string(call.process) + "/exe";
    return std::filesystem::read_symlink(executable).filename() == builtTool().filename();
}

/// Kills the process that makes the call, which is not carried out any more.
inline int killedInCall(const SystemCall& call)
{
    ::kill(call.process, SIGKILL);
    return EINTR;
}

/// Runs the program with some of its system calls, and those of what it runs, stopped for a decision.
inline Outcome runStopping(const std::vector<long>& stopped, const Decide& decide, const Arguments& arguments)
{
    const Ending ending = stopping(stopped, decide, [&] {
        const Outcome outcome = run(arguments);
        return std::to_string(outcome.status) + "\n" + outcome.out + '\0' + outcome.err;
    });
    if (ending.kind != "returned")
        throw std::runtime_error("the run was lost: " + ending.kind + " " + ending.text);
    const std::size_t status = ending.text.find('\n');
    const std::size_t out = ending.text.find('\0');
    return {std::stoi(ending.text), ending.text.substr(status + 1, out - status - 1),
            ending.text.substr(out + 1)};
}

} // namespace maintenance::rehearsed
