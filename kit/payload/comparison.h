#pragma once

#include "kit/payload/payload.h"
#include "kit/text/listed_files.h"

#include <string>
#include <vector>

namespace maintenance::kit {

/// One difference between what is listed and what a payload brings.
struct Difference {
    enum class Kind { Missing, Extra, Content, Package, Version };

    Kind kind;
    /// A file's path, or of a package its identifier.
    std::string place;
    /// What is listed: a digest, a package or a version; empty when nothing is.
    std::string listed;
    /// What the payload has instead; empty when it has nothing.
    std::string found;
};

/// Compares what is listed with a payload: every file with its content, and where the payload comes from
/// packages also their identifiers and versions. In byte order of the places, files first.
std::vector<Difference> compareWithPayload(const ListedFiles& listed, const Payload& payload);

/// Returns the differences for people: "-" is listed and not there, "+" is there and not listed, "~" differs.
std::string differencesText(const std::vector<Difference>& differences, const Paint& paint);

Json differencesJson(const std::vector<Difference>& differences);

} // namespace maintenance::kit
