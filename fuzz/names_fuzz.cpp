#include "validate/identifiers.h"

#include "fuzz/property.h"
#include "fuzz/published_patterns.h"
#include "validate/owned_path.h"
#include "validate/text_fields.h"

#include <filesystem>
#include <regex>
#include <string>

namespace maintenance::fuzz {
namespace {

bool matches(std::string_view text, const std::regex& pattern)
{
    return std::regex_match(text.begin(), text.end(), pattern);
}

void comparePredicates(std::string_view text)
{
    static const std::regex id(published::id);
    static const std::regex version(published::version);
    static const std::regex package(published::package);
    static const std::regex revision(published::revision);
    static const std::regex digest(published::digest);
    static const std::regex serial(published::serial);
    require(safeId(text) == matches(text, id), "safeId accepts what its pattern accepts");
    require(safeVersion(text) == matches(text, version), "safeVersion accepts what its pattern accepts");
    require(safePackageId(text) == matches(text, package), "safePackageId accepts what its pattern accepts");
    require(isRevision(text) == matches(text, revision), "isRevision accepts what its pattern accepts");
    require(isDigest(text) == matches(text, digest), "isDigest accepts what its pattern accepts");
    require(isSerial(text) == matches(text, serial), "isSerial accepts what its pattern accepts");
}

void comparePaths(std::string_view text)
{
    static const std::regex lexical(published::lexicalPath);
    static const std::regex owned(published::ownedPath);
    const bool normal =
        matches(text, lexical) && std::filesystem::path(text).lexically_normal().native() == text;
    require(accepts([&] { safeLexicalRelative(text); }) == normal,
            "safeLexicalRelative accepts normal forms of safe characters");
    // A file's path does not end in a separator.
    const bool file = normal && matches(text, owned) && !text.ends_with('/');
    require(accepts([&] { safeRelative(text); }) == file,
            "safeRelative accepts files in the maker's bundles");
}

void takeApart(std::string_view text)
{
    std::string joined;
    for (const std::string& piece : split(text, '\t'))
        joined += piece + '\t';
    joined.pop_back();
    require(joined == text, "the pieces make up the text");

    std::string lines;
    for (const std::string_view line : splitLines(text))
        lines.append(line) += '\n';
    require(lines == text || lines == std::string(text) + '\n', "the lines make up the text");
}

void examine(std::string_view text)
{
    takeApart(text);
    // The standard library's matcher recurses with every character; it is the yardstick here, not the rule.
    if (text.size() > 400)
        return;
    comparePredicates(text);
    comparePaths(text);
}

} // namespace
} // namespace maintenance::fuzz

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    maintenance::fuzz::examine(maintenance::fuzz::textOf(data, size));
    return 0;
}
