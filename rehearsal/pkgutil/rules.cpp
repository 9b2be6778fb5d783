#include "pkgutil/rules.h"

#include "common/text.h"

#include <algorithm>
#include <fnmatch.h>

namespace {

char unescaped(char letter)
{
    if (letter == 'n')
        return '\n';
    return letter == 't' ? '\t' : letter;
}

// Quotes may open and close anywhere in a word, as in before="rm -f /tmp/a".
std::vector<std::string> wordsOf(const std::string& text, unsigned line)
{
    std::vector<std::string> words;
    bool inWord = false;
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char letter = text[i];
        if (!quoted && (letter == ' ' || letter == '\t')) {
            inWord = false;
            continue;
        }
        if (!inWord)
            words.emplace_back();
        inWord = true;
        if (letter == '"') {
            quoted = !quoted;
        } else if (quoted && letter == '\\' && i + 1 < text.size()) {
            words.back() += unescaped(text[++i]);
        } else {
            words.back() += letter;
        }
    }
    if (quoted)
        badLine(line, "a quote is not closed");
    return words;
}

Range rangeFrom(const std::string& value, unsigned line)
{
    const std::size_t dash = value.find('-');
    const std::optional<unsigned long> first = number(value.substr(0, dash));
    if (!first)
        badLine(line, "\"" + value + "\" is no number of a call");
    if (dash == std::string::npos)
        return {*first, *first};
    if (dash + 1 == value.size())
        return {*first, ~0UL};
    const std::optional<unsigned long> last = number(value.substr(dash + 1));
    if (!last)
        badLine(line, "\"" + value + "\" is no range of calls");
    return {*first, *last};
}

std::vector<std::string> commandsFrom(const std::string& value, unsigned line)
{
    constexpr std::string_view known[] = {"--pkgs", "--pkgs=", "--pkg-info", "--files", "--forget"};
    const std::vector<std::string> commands = split(value, ',');
    for (const std::string& command : commands) {
        if (std::find(std::begin(known), std::end(known), command) == std::end(known)) {
            badLine(line, "there is no command \"" + command + "\"");
        }
    }
    return commands;
}

void takeSelector(Rule& rule, const std::string& name, const std::string& value)
{
    if (name == "call") {
        rule.call = rangeFrom(value, rule.line);
    } else if (name == "nth") {
        rule.nth = rangeFrom(value, rule.line);
    } else if (name == "command") {
        rule.commands = commandsFrom(value, rule.line);
    } else if (name == "id") {
        rule.id = value;
    } else if (name == "volume") {
        rule.volume = value;
    } else {
        badLine(rule.line, "there is no selector \"" + name + "\"");
    }
}

Rule ruleFrom(const std::vector<std::string>& words, unsigned line)
{
    Rule rule;
    rule.line = line;
    bool selecting = true;
    for (const std::string& word : words) {
        if (selecting && word == "do") {
            selecting = false;
            continue;
        }
        const std::size_t equals = word.find('=');
        if (equals == std::string::npos)
            badLine(line, "\"" + word + "\" has no \"=\"");
        const std::string name = word.substr(0, equals);
        const std::string value = word.substr(equals + 1);
        if (selecting) {
            takeSelector(rule, name, value);
        } else {
            rule.actions.emplace_back(name, value);
        }
    }
    if (rule.actions.empty())
        badLine(line, "no \"do\" with an action after it");
    return rule;
}

} // namespace

std::vector<Rule> readRules(const std::string& content)
{
    std::vector<Rule> rules;
    unsigned line = 0;
    for (const std::string& text : lines(content)) {
        ++line;
        const std::vector<std::string> words = wordsOf(text, line);
        if (!words.empty() && text[text.find_first_not_of(" \t")] != '#')
            rules.push_back(ruleFrom(words, line));
    }
    return rules;
}

bool selects(const Rule& rule, const Call& call)
{
    const auto matches = [](const std::string& pattern, const std::string& text) {
        return ::fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
    };
    if (!rule.commands.empty() &&
        std::find(rule.commands.begin(), rule.commands.end(), call.command) == rule.commands.end()) {
        return false;
    }
    if (rule.id && (call.command == "--pkgs" || !matches(*rule.id, call.subject)))
        return false;
    return !rule.volume || matches(*rule.volume, call.volume);
}

void badLine(unsigned line, const std::string& what)
{
    throw BadControlFile("/etc/pkgutil-stand-in.conf, line " + std::to_string(line) + ": " + what);
}
