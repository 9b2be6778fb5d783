#include "kit/cli/commands.h"
#include "kit/report/failure.h"
#include "kit/report/input_file.h"
#include "kit/report/printable.h"
#include "kit/text/tool_file.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"

namespace maintenance::kit {

namespace {

/// The largest file that the tool writes is a manifest.
constexpr std::size_t largestFile = 64U << 20U;

std::string words(const std::vector<std::string>& list)
{
    std::string text;
    for (const std::string& word : list)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

FileKind kindOf(const ShowOptions& options, std::string_view text)
{
    const auto kind = options.kind.empty() ? detectFileKind(text, options.file) : fileKindOf(options.kind);
    if (!kind)
        throw Failure(Findings, printable(options.file) + " is none of the tool's files",
                      "if it is one and damaged, say which with --kind: " + words(fileKindWords()));
    return *kind;
}

std::string adviceFor(FileKind kind, const std::string& file)
{
    if (kind == FileKind::Plan || kind == FileKind::Descriptor)
        return "tpm-kit check " + shellQuoted(file) + " says what is wrong, line by line";
    return "compare it with the description of its format; the tool will refuse it as well";
}

} // namespace

std::string descriptorIdOf(const std::string& file)
{
    constexpr std::string_view suffix = ".tpmt";
    std::string name = file.substr(file.rfind('/') + 1);
    if (!name.ends_with(suffix))
        return {};
    name.erase(name.size() - suffix.size());
    return name;
}

Answer runShow(const ShowOptions& options, bool json, const Terminal& terminal)
{
    const std::string text = readInputFile(options.file, largestFile).content;
    const FileKind kind = kindOf(options, text);
    const std::string id = descriptorIdOf(options.file);
    try {
        const ToolFile file = readToolFile(kind, text, safeId(id) ? id : "", terminal.out);
        return {AllRight, json ? jsonText(file.json) : file.people, {}};
    } catch (const Invalid& error) {
        throw Failure(Findings,
                      printable(options.file) + " is no valid " + wordOf(kind) + ": " + error.what(),
                      adviceFor(kind, options.file));
    }
}

} // namespace maintenance::kit
