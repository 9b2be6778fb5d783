#pragma once

#include "kit/report/paint.h"

#include <string>
#include <utility>
#include <vector>

namespace maintenance::kit {

/// Lines of a label and a value, with the values below each other.
class Sheet {
public:
    /// Adds a line; a value of several lines continues below itself.
    void add(const std::string& label, const std::string& value) { rows_.emplace_back(label, value); }

    /// Returns the lines, each beginning with `indent`.
    std::string text(const Paint& paint, const std::string& indent = {}) const;

private:
    std::vector<std::pair<std::string, std::string>> rows_;
};

/// Returns the first digits of a digest, which tell files apart well enough for people.
std::string shortDigest(const std::string& sha256);

} // namespace maintenance::kit
