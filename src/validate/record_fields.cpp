#include "validate/record_fields.h"

#include "validate/invalid.h"
#include "validate/text_fields.h"

namespace maintenance {

RecordFields readRecordFields(std::string_view text, std::size_t fieldCount, const char* refusal)
{
    RecordFields fields;
    for (const std::string_view line : splitLines(text)) {
        const auto field = splitKeyValue(line);
        if (!field || !fields.emplace(field->key, field->value).second)
            throw Invalid(refusal);
    }
    if (fields.size() != fieldCount)
        throw Invalid(refusal);
    return fields;
}

std::string takeField(const RecordFields& fields, std::string_view key, const char* refusal)
{
    const auto field = fields.find(key);
    if (field == fields.end())
        throw Invalid(refusal);
    return field->second;
}

} // namespace maintenance
