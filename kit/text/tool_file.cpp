#include "kit/text/tool_file.h"

#include "kit/text/record_files.h"
#include "kit/text/work_files.h"
#include "validate/text_fields.h"

#include <algorithm>

namespace maintenance::kit {

namespace {

constexpr std::string_view schemaKey = "schema=";

/// The value of the first line schema=, wherever it stands.
std::string_view schemaOf(std::string_view text)
{
    for (const std::string_view line : splitLines(text))
        if (line.starts_with(schemaKey))
            return line.substr(schemaKey.size());
    return {};
}

std::optional<FileKind> kindOfSchema(std::string_view schema)
{
    if (schema.starts_with("tamarind.pelican.macos-maintenance-plan."))
        return FileKind::Plan;
    if (schema.starts_with("tamarind.pelican.macos-maintenance-attempt."))
        return FileKind::Attempt;
    if (schema.starts_with("tamarind.pelican.macos-maintenance.prepared."))
        return FileKind::Transaction;
    if (schema.starts_with("tamarind.pelican.macos-maintenance."))
        return FileKind::Descriptor;
    return std::nullopt;
}

/// The lock is always empty, a manifest where none of the packages was registered.
std::optional<FileKind> kindOfEmpty(std::string_view name)
{
    if (name == "maintenance.lock")
        return FileKind::Lock;
    if (name == "manifest")
        return FileKind::Manifest;
    return std::nullopt;
}

bool isManifestLine(std::string_view line)
{
    const auto tabs = std::count(line.begin(), line.end(), '\t');
    return line.starts_with("receipt\t") ? tabs == 3 : tabs == 2;
}

} // namespace

const std::vector<std::string>& fileKindWords()
{
    static const std::vector<std::string> words = {"plan",           "descriptor", "attempt",  "transaction",
                                                   "product-record", "index",      "manifest", "receipt",
                                                   "lock",           "absence"};
    return words;
}

std::string wordOf(FileKind kind) { return fileKindWords().at(static_cast<std::size_t>(kind)); }

std::optional<FileKind> fileKindOf(std::string_view word)
{
    const auto& words = fileKindWords();
    const auto found = std::find(words.begin(), words.end(), word);
    if (found == words.end())
        return std::nullopt;
    return static_cast<FileKind>(found - words.begin());
}

std::optional<FileKind> detectFileKind(std::string_view text, std::string_view file)
{
    if (text.empty())
        return kindOfEmpty(file.substr(file.rfind('/') + 1));
    if (text == absenceText)
        return FileKind::Absence;
    if (const auto kind = kindOfSchema(schemaOf(text)))
        return kind;
    if (text.starts_with('{'))
        return FileKind::Index;
    if (text.starts_with("product=") || text.starts_with("version="))
        return FileKind::ProductRecord;
    if (text.starts_with("pkgutil="))
        return FileKind::Receipt;
    const auto lines = splitLines(text);
    if (!lines.empty() && std::all_of(lines.begin(), lines.end(), isManifestLine))
        return FileKind::Manifest;
    return std::nullopt;
}

ToolFile readToolFile(FileKind kind, std::string_view text, const std::string& id, const Paint& paint)
{
    switch (kind) {
    case FileKind::Plan:
        return showPlan(text, paint);
    case FileKind::Descriptor:
        return showDescriptor(text, id, paint);
    case FileKind::Attempt:
        return showAttempt(text, paint);
    case FileKind::Transaction:
        return showTransaction(text, paint);
    case FileKind::ProductRecord:
        return showProductRecord(text, paint);
    case FileKind::Index:
        return showIndex(text, paint);
    case FileKind::Manifest:
        return showManifest(text, paint);
    case FileKind::Lock:
        return showLock();
    case FileKind::Absence:
        return showAbsence(text);
    case FileKind::Receipt:
        break;
    }
    return showReceipt(text, paint);
}

} // namespace maintenance::kit
