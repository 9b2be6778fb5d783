#include "kit/payload/package_info.h"

#include <array>
#include <optional>
#include <utility>

namespace maintenance::kit {

namespace {

constexpr std::string_view blanks = " \t\r\n";

bool isBlank(char c) { return blanks.find(c) != std::string_view::npos; }

std::string withoutComments(std::string_view text)
{
    std::string kept;
    for (;;) {
        const std::size_t start = text.find("<!--");
        kept += text.substr(0, start);
        if (start == std::string_view::npos)
            return kept;
        const std::size_t end = text.find("-->", start + 4);
        if (end == std::string_view::npos)
            return kept;
        text.remove_prefix(end + 3);
    }
}

std::string decoded(std::string_view text)
{
    constexpr std::array<std::pair<std::string_view, char>, 5> entities = {
        {{"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&amp;", '&'}}};
    std::string plain;
    while (!text.empty()) {
        char next = text.front();
        std::size_t length = 1;
        for (const auto& [entity, letter] : entities)
            if (text.starts_with(entity)) {
                next = letter;
                length = entity.size();
            }
        plain += next;
        text.remove_prefix(length);
    }
    return plain;
}

/// The first element called `name`: where its start tag begins and ends.
struct Tag {
    std::size_t begin;
    std::size_t end;
    bool empty;
};

std::optional<Tag> findTag(std::string_view text, std::string_view name)
{
    const std::string opening = "<" + std::string(name);
    for (std::size_t at = text.find(opening); at != std::string_view::npos; at = text.find(opening, at + 1)) {
        const std::size_t behind = at + opening.size();
        if (behind >= text.size() || !(isBlank(text[behind]) || text[behind] == '>' || text[behind] == '/'))
            continue;
        const std::size_t end = text.find('>', behind);
        if (end == std::string_view::npos)
            return std::nullopt;
        return Tag{at, end, text[end - 1] == '/'};
    }
    return std::nullopt;
}

/// The value of an attribute of a start tag.
std::optional<std::string> attribute(std::string_view tag, std::string_view name)
{
    const std::string assignment = std::string(name) + "=";
    for (std::size_t at = tag.find(assignment); at != std::string_view::npos;
         at = tag.find(assignment, at + 1)) {
        const std::size_t quote = at + assignment.size();
        if (!isBlank(tag[at - 1]) || quote >= tag.size() || (tag[quote] != '"' && tag[quote] != '\''))
            continue;
        const std::size_t end = tag.find(tag[quote], quote + 1);
        if (end != std::string_view::npos)
            return decoded(tag.substr(quote + 1, end - quote - 1));
    }
    return std::nullopt;
}

/// Tells whether the element `name` lists a bundle.
bool listsBundle(std::string_view text, std::string_view name)
{
    const auto tag = findTag(text, name);
    if (!tag || tag->empty)
        return false;
    const std::string closing = "</" + std::string(name);
    const std::string_view inner = text.substr(tag->end, text.find(closing, tag->end) - tag->end);
    return findTag(inner, "bundle").has_value();
}

} // namespace

PackageInfo readPackageInfo(std::string_view text)
{
    const std::string plain = withoutComments(text);
    PackageInfo info;
    info.location = "/";
    const auto tag = findTag(plain, "pkg-info");
    if (!tag)
        return info;
    const std::string_view start = std::string_view(plain).substr(tag->begin, tag->end - tag->begin);
    info.packageId = attribute(start, "identifier").value_or("");
    info.version = attribute(start, "version").value_or("");
    info.location = attribute(start, "install-location").value_or("/");
    info.relocatable =
        attribute(start, "relocatable").value_or("false") == "true" || listsBundle(plain, "relocate");
    info.versionChecked = listsBundle(plain, "bundle-version");
    return info;
}

} // namespace maintenance::kit
