#include "validate/text_fields.h"

#include "validate/invalid.h"

namespace maintenance {

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> pieces;
    for (std::size_t start = 0;;) {
        const std::size_t end = text.find(separator, start);
        if (end == std::string_view::npos) {
            pieces.emplace_back(text.substr(start));
            return pieces;
        }
        pieces.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
}

std::vector<std::string_view> splitLines(std::string_view text)
{
    std::vector<std::string_view> lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::optional<KeyValue> splitKeyValue(std::string_view line)
{
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos)
        return std::nullopt;
    return KeyValue{line.substr(0, equals), line.substr(equals + 1)};
}

KeyValue requireFieldLine(std::string_view line, std::string_view subject)
{
    constexpr std::size_t longestLine = 8192;
    if (line.empty() || line.size() > longestLine)
        throw Invalid(std::string(subject) + " contains an invalid line");
    const auto field = splitKeyValue(line);
    if (!field)
        throw Invalid(std::string(subject) + " contains an invalid field");
    return *field;
}

} // namespace maintenance
