#pragma once

#include "kit/report/json.h"
#include "kit/report/paint.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace maintenance::kit {

/// The kinds of files that the tool reads and writes.
enum class FileKind {
    Plan,
    Descriptor,
    Attempt,
    Transaction,
    ProductRecord,
    Index,
    Manifest,
    Receipt,
    Lock,
    Absence
};

/// The words that name the kinds on the command line and in JSON, in the order of the kinds.
const std::vector<std::string>& fileKindWords();
std::string wordOf(FileKind kind);
std::optional<FileKind> fileKindOf(std::string_view word);

/// Tells from a file's content what it is; nothing when it is none of the tool's files.
///
/// file  its path, which tells the kinds of empty files apart
std::optional<FileKind> detectFileKind(std::string_view text, std::string_view file = {});

/// A file of the tool that has been read.
struct ToolFile {
    FileKind kind;
    /// Everything in it.
    Json json;
    /// The same for people.
    std::string people;
};

/// Reads the content of one of the tool's files.
///
/// id      a descriptor's identifier; empty when it is not known
/// paint   colours for the text for people
/// throws  Invalid with the tool's message when the content is not valid
ToolFile readToolFile(FileKind kind, std::string_view text, const std::string& id, const Paint& paint);

} // namespace maintenance::kit
