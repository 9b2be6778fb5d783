#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace maintenance::kit {

/// JSON whose members keep the order in which they were added.
using Json = nlohmann::ordered_json;

/// Returns `value` as the kit prints it: indented by two blanks, ASCII only, with a line feed.
std::string jsonText(const Json& value);

/// Parses a JSON text in which no object has a member twice.
///
/// place   the file's name for messages
/// advice  what to do when it is no such text
/// throws  Failure (Findings)
Json parseJson(std::string_view text, const std::string& place, const std::string& advice);

} // namespace maintenance::kit
