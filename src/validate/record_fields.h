#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace maintenance {

/// The fields of a record: a small file of key "=" value lines, each key once, in any order.
using RecordFields = std::map<std::string, std::string, std::less<>>;

/// Reads the lines of a record.
///
/// fieldCount  how many keys there must be
/// refusal     the message to raise
/// throws      Invalid `refusal` for a line without "=", a repeated key or another count
RecordFields readRecordFields(std::string_view text, std::size_t fieldCount, const char* refusal);

/// Returns the value of `key`. Throws Invalid `refusal` when the record has no such key.
std::string takeField(const RecordFields& fields, std::string_view key, const char* refusal);

} // namespace maintenance
