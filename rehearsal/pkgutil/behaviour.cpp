#include "pkgutil/behaviour.h"

#include "common/files.h"
#include "common/text.h"
#include "pkgutil/call_counts.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>

namespace {

const char* const controlFile = "/etc/pkgutil-stand-in.conf";

/// The value of one action, with everything its reading needs.
struct Value {
    const Rule& rule;
    const std::string& name;
    const std::string& text;

    [[noreturn]] void isWrong() const { badLine(rule.line, "\"" + text + "\" is no value for " + name); }

    [[nodiscard]] unsigned long asNumber() const
    {
        const std::optional<unsigned long> value = number(text);
        if (!value)
            isWrong();
        return *value;
    }
    [[nodiscard]] int asStatus() const
    {
        if (asNumber() > 255)
            isWrong();
        return static_cast<int>(asNumber());
    }
    [[nodiscard]] bool asAnswer() const
    {
        if (text != "yes" && text != "no")
            isWrong();
        return text == "yes";
    }
    [[nodiscard]] Behaviour::Match asMatch() const
    {
        if (text == "whole")
            return Behaviour::Match::whole;
        if (text == "prefix")
            return Behaviour::Match::prefix;
        if (text != "anywhere")
            isWrong();
        return Behaviour::Match::anywhere;
    }
    [[nodiscard]] int asSignal() const
    {
        for (int signal = 1; signal < NSIG; ++signal) {
            const char* abbreviation = ::sigabbrev_np(signal);
            if (abbreviation != nullptr &&
                (text == abbreviation || text == "SIG" + std::string(abbreviation))) {
                return signal;
            }
        }
        if (asNumber() == 0 || asNumber() >= NSIG)
            isWrong();
        return static_cast<int>(asNumber());
    }
};

using Setter = void (*)(Behaviour&, const Value&);

constexpr std::pair<std::string_view, Setter> setters[] = {
    {"match", [](Behaviour& b, const Value& value) { b.match = value.asMatch(); }},
    {"empty-home", [](Behaviour& b, const Value& value) { b.emptyHomeStatus = value.asStatus(); }},
    {"no-match", [](Behaviour& b, const Value& value) { b.noMatchStatus = value.asStatus(); }},
    {"twins", [](Behaviour& b, const Value& value) { b.twins = value.asAnswer(); }},
    {"forget", [](Behaviour& b, const Value& value) { b.forget = value.asAnswer(); }},
    {"stderr", [](Behaviour& b, const Value& value) { b.errorLine = value.text; }},
    {"exit", [](Behaviour& b, const Value& value) { b.exitStatus = value.asStatus(); }},
    {"pad", [](Behaviour& b, const Value& value) { b.padding = value.asNumber(); }},
    {"long-line", [](Behaviour& b, const Value& value) { b.longLine = value.asNumber(); }},
    {"replace", [](Behaviour& b, const Value& value) { b.replacement = value.text; }},
    {"cut", [](Behaviour& b, const Value& value) { b.cut = value.asNumber(); }},
    {"before", [](Behaviour& b, const Value& value) { b.commandsBefore.push_back(value.text); }},
    {"after", [](Behaviour& b, const Value& value) { b.commandsAfter.push_back(value.text); }},
    {"kill", [](Behaviour& b, const Value& value) { b.signalBefore = value.asSignal(); }},
    {"kill-after", [](Behaviour& b, const Value& value) { b.signalAfter = value.asSignal(); }},
};

void apply(const Rule& rule, Behaviour& behaviour)
{
    for (const auto& [name, text] : rule.actions) {
        const auto* setter =
            std::find_if(std::begin(setters), std::end(setters),
                         [&wanted = name](const auto& candidate) { return candidate.first == wanted; });
        if (setter == std::end(setters))
            badLine(rule.line, "there is no action \"" + name + "\"");
        setter->second(behaviour, Value{rule, name, text});
    }
}

// Written anew with the same content, the file is another edition; so time and file number count as well.
std::string editionOf(const struct stat& status, const std::string& content)
{
    return std::to_string(status.st_ino) + " " + std::to_string(status.st_mtim.tv_sec) + " " +
           std::to_string(status.st_mtim.tv_nsec) + " " + std::to_string(std::hash<std::string>()(content));
}

} // namespace

Behaviour behaviourFor(const Call& call)
{
    Behaviour behaviour;
    const OwnedFd fd(::open(controlFile, O_RDONLY | O_CLOEXEC));
    if (!fd && errno == ENOENT)
        return behaviour;
    struct stat status {};
    std::string content;
    if (!fd || ::fstat(fd.get(), &status) != 0 || !readAll(fd.get(), content)) {
        throw BadControlFile(std::string("cannot read ") + controlFile + ": " + std::strerror(errno));
    }

    const std::vector<Rule> rules = readRules(content);
    for (const Rule& rule : rules) {
        Behaviour unused; // a mistake must show at the first call, not when a rule comes to be used
        apply(rule, unused);
    }
    const bool counting = std::any_of(rules.begin(), rules.end(), [](const Rule& rule) {
        return rule.call.has_value() || rule.nth.has_value();
    });
    const CallNumbers numbers = counting ? countCall(rules, call, editionOf(status, content)) : CallNumbers{};
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const bool byCall = !rules[i].call || rules[i].call->contains(numbers.call);
        const bool byNth = !rules[i].nth || rules[i].nth->contains(numbers.nth[i]);
        if (byCall && byNth && selects(rules[i], call))
            apply(rules[i], behaviour);
    }
    return behaviour;
}
