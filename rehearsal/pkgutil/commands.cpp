#include "pkgutil/commands.h"

#include "common/receipts.h"
#include "common/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <regex.h>
#include <unistd.h>

namespace {

std::string listing(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names) {
        text += name + "\n";
    }
    return text;
}

// Adds names until the listing has at least `bytes` bytes; sorting them in is up to the caller.
void pad(std::vector<std::string>& names, unsigned long bytes)
{
    std::size_t size = listing(names).size();
    for (unsigned long i = 1; size < bytes; ++i) {
        const std::string digits = std::to_string(i);
        names.push_back("padding." + std::string(digits.size() < 8 ? 8 - digits.size() : 0, '0') + digits);
        size += names.back().size() + 1;
    }
}

Outcome unreadable(const std::string& what)
{
    return {"", "Cannot read " + what + ": " + std::strerror(errno) + "\n", 1};
}

// Of all matches at one place the longest is reported, so a match of the whole text is found if there is one.
bool matches(const regex_t& expression, const std::string& text, Behaviour::Match how)
{
    regmatch_t found{};
    if (::regexec(&expression, text.c_str(), 1, &found, 0) != 0)
        return false;
    if (how == Behaviour::Match::anywhere)
        return true;
    if (found.rm_so != 0)
        return false;
    return how == Behaviour::Match::prefix || found.rm_eo == static_cast<regoff_t>(text.size());
}

Outcome listAll(const Call& call, const Behaviour& behaviour)
{
    std::optional<std::vector<std::string>> identifiers = listReceipts(call.volume);
    if (!identifiers)
        return unreadable("the receipts of '" + call.volume + "'");
    pad(*identifiers, behaviour.padding);
    std::sort(identifiers->begin(), identifiers->end());
    const bool emptyHome = identifiers->empty() && call.volume != "/";
    return {listing(*identifiers), "", emptyHome ? behaviour.emptyHomeStatus : 0};
}

Outcome listMatching(const Call& call, const Behaviour& behaviour)
{
    std::optional<std::vector<std::string>> identifiers = listReceipts(call.volume);
    if (!identifiers)
        return unreadable("the receipts of '" + call.volume + "'");
    regex_t expression{};
    if (::regcomp(&expression, call.subject.c_str(), REG_EXTENDED) != 0) {
        return {"", "'" + call.subject + "' is not a regular expression.\n", 1};
    }
    std::erase_if(*identifiers,
                  [&](const std::string& name) { return !matches(expression, name, behaviour.match); });
    ::regfree(&expression);
    pad(*identifiers, behaviour.padding);
    std::sort(identifiers->begin(), identifiers->end());
    return {listing(*identifiers), "", identifiers->empty() ? behaviour.noMatchStatus : 0};
}

Outcome noReceipt(const Call& call)
{
    return {"", "No receipt for '" + call.subject + "' found at '" + call.volume + "'.\n", 1};
}

Outcome missingOrUnreadable(const Call& call)
{
    if (errno == ENOENT || errno == ENOTDIR)
        return noReceipt(call);
    return unreadable("the receipt of '" + call.subject + "'");
}

Outcome describe(const Call& call)
{
    const std::optional<Receipt> receipt = readReceipt(call.volume, call.subject);
    if (!receipt)
        return missingOrUnreadable(call);
    return {"package-id: " + call.subject + "\nversion: " + receipt->version + "\nvolume: " + call.volume +
                "\nlocation: " + receipt->location + "\ninstall-time: " + receipt->installTime + "\n",
            "", 0};
}

std::string twinOf(const std::string& path)
{
    const std::size_t name = path.rfind('/') + 1; // npos + 1 is 0
    return path.substr(0, name) + "._" + path.substr(name);
}

Outcome listFiles(const Call& call, const Behaviour& behaviour)
{
    std::optional<Receipt> receipt = readReceipt(call.volume, call.subject);
    if (!receipt)
        return missingOrUnreadable(call);
    std::vector<std::string>& paths = receipt->paths;
    const std::size_t own = paths.size();
    for (std::size_t i = 0; behaviour.twins && i < own; ++i) {
        paths.push_back(twinOf(paths[i]));
    }
    pad(paths, behaviour.padding);
    // A receipt written by hand may have an order of its own, which only additions may change.
    if (paths.size() != own)
        std::sort(paths.begin(), paths.end(), standsBefore);
    return {listing(paths), "", 0};
}

Outcome forget(const Call& call, const Behaviour& behaviour)
{
    if (!readReceipt(call.volume, call.subject))
        return missingOrUnreadable(call);
    if (behaviour.forget && ::unlink(receiptPath(call.volume, call.subject).c_str()) != 0) {
        return {"",
                "Cannot forget '" + call.subject + "' at '" + call.volume + "': " + std::strerror(errno) +
                    "\n",
                1};
    }
    return {"Forgot package '" + call.subject + "' on '" + call.volume + "'.\n", "", 0};
}

} // namespace

Outcome obey(const Call& call, const Behaviour& behaviour)
{
    if (call.command == "--pkgs")
        return listAll(call, behaviour);
    if (call.command == "--pkgs=")
        return listMatching(call, behaviour);
    if (call.command == "--pkg-info")
        return describe(call);
    if (call.command == "--files")
        return listFiles(call, behaviour);
    return forget(call, behaviour);
}
