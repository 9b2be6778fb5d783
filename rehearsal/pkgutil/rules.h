#pragma once

#include "pkgutil/arguments.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// The control file is wrong or cannot be obeyed; what() is one line that says so.
struct BadControlFile : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A range of call numbers, both ends included, counted from 1.
struct Range {
    unsigned long first = 1;
    unsigned long last = ~0UL;
    [[nodiscard]] bool contains(unsigned long value) const { return first <= value && value <= last; }
};

/// One line of the control file.
struct Rule {
    unsigned line = 0;                 ///< its number, counted from 1
    std::optional<Range> call;         ///< number among all calls
    std::optional<Range> nth;          ///< number among the calls that the other selectors select
    std::vector<std::string> commands; ///< empty: any
    std::optional<std::string> id;     ///< shell pattern
    std::optional<std::string> volume; ///< shell pattern
    std::vector<std::pair<std::string, std::string>> actions; ///< names and values, not yet interpreted
};

/// Reads the content of a control file; ../README.md has its format. Throws BadControlFile.
std::vector<Rule> readRules(const std::string& content);

/// Tells whether the selectors `command`, `id` and `volume` of `rule` select `call`.
bool selects(const Rule& rule, const Call& call);

/// Throws BadControlFile for something wrong in the line of that number.
[[noreturn]] void badLine(unsigned line, const std::string& what);
