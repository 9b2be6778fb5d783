#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace maintenance::kit {

/// Where a payload comes from: staged trees or built packages, never both.
struct PayloadOptions {
    std::vector<std::string> roots;
    std::vector<std::string> packages;

    bool empty() const { return roots.empty() && packages.empty(); }
};

/// The words of "plan".
struct PlanOptions {
    std::string products;
    PayloadOptions payload;
    std::string output;
};

/// The words of "check".
struct CheckOptions {
    std::string file;
    /// "plan", "descriptor" or empty: found out.
    std::string kind;
    /// "user", "system" or empty: the descriptor's own.
    std::string scope;
    /// Empty: from the file's name.
    std::string id;
    PayloadOptions payload;
    /// Warnings count as errors.
    bool strict = false;
};

/// The words of "show".
struct ShowOptions {
    std::string file;
    /// One of fileKindWords(), or empty: found out.
    std::string kind;
};

/// The words of "descriptor".
struct DescriptorOptions {
    /// "move", "adopt", "replace" or "uninstall".
    std::string kind;
    std::string scope;
    std::string id;
    std::string sku;
    /// Empty: from what is installed.
    std::string plan;
    std::string decision = "none";
    std::vector<std::string> products;
    /// Each PRODUCT=VERSION.
    std::vector<std::string> recorded;
    /// Empty: the identifier and ".tpmt".
    std::string output;
};

/// The words of "status".
struct StatusOptions {
    /// "user", "system" or empty: both.
    std::string scope;
};

/// The words of "verify".
struct VerifyOptions {
    std::string scope;
    /// A plan or descriptor to compare with; empty: the descriptors of completed transactions.
    std::string against;
};

/// The words of "history".
struct HistoryOptions {
    std::string scope;
};

using CommandOptions = std::variant<PlanOptions, CheckOptions, DescriptorOptions, ShowOptions, StatusOptions,
                                    VerifyOptions, HistoryOptions>;

/// A command line that has been understood.
struct Options {
    bool json = false;
    bool quiet = false;
    CommandOptions command;
};

/// What becomes of a command line: options to act on, or a text to print and the status to end with.
struct CommandLine {
    std::optional<Options> options;
    int status = 0;
    std::string out;
    std::string err;
};

/// Reads the words of a command line, the program's name first.
CommandLine readCommandLine(int argumentCount, const char* const* arguments);

} // namespace maintenance::kit
