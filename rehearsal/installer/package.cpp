#include "installer/package.h"

#include "common/files.h"
#include "common/text.h"
#include "installer/failure.h"
#include "installer/process.h"

#include <algorithm>
#include <filesystem>
#include <optional>

namespace fs = std::filesystem;

namespace {

void unpack(const std::string& archive, const std::string& directory)
{
    fs::create_directories(directory);
    std::string said;
    const int status = runProgram({"bsdtar", "-x", "-p", "--no-same-owner", "-f", archive, "-C", directory},
                                  {"PATH=/usr/bin:/bin"}, "/", [&](const std::string& line) { said = line; });
    if (status == 126)
        throw Failure("bsdtar of the package libarchive-tools is needed.");
    if (status != 0)
        throw Failure("Cannot unpack " + archive + ": " + said);
}

std::string decoded(std::string text)
{
    constexpr std::pair<std::string_view, std::string_view> entities[] = {
        {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}, {"&amp;", "&"}};
    for (const auto& [entity, letter] : entities) {
        for (std::size_t at = text.find(entity); at != std::string::npos; at = text.find(entity, at + 1)) {
            text.replace(at, entity.size(), letter);
        }
    }
    return text;
}

// Returns the first tag called `name`, from "<" to ">"; comments must have been taken out.
std::optional<std::string> tagIn(const std::string& text, const std::string& name)
{
    for (std::size_t at = text.find("<" + name); at != std::string::npos;
         at = text.find("<" + name, at + 1)) {
        const char next = text.c_str()[at + 1 + name.size()];
        if (std::string(" \t\r\n/>").find(next) == std::string::npos)
            continue;
        return text.substr(at, text.find('>', at) - at + 1);
    }
    return std::nullopt;
}

std::string attributeIn(const std::string& tag, const std::string& name)
{
    for (std::size_t at = tag.find(name); at != std::string::npos; at = tag.find(name, at + 1)) {
        const std::size_t quote = at + name.size() + 1;
        if (std::string(" \t\r\n").find(tag[at - 1]) == std::string::npos)
            continue;
        if (quote >= tag.size() || tag[quote - 1] != '=' || (tag[quote] != '"' && tag[quote] != '\''))
            continue;
        return decoded(tag.substr(quote + 1, tag.find(tag[quote], quote + 1) - quote - 1));
    }
    return "";
}

std::string readMarkup(const std::string& path)
{
    std::optional<std::string> text = readFile(path);
    if (!text)
        failed("Cannot read " + path);
    for (std::size_t at = text->find("<!--"); at != std::string::npos; at = text->find("<!--", at)) {
        const std::size_t end = text->find("-->", at);
        text->erase(at, end == std::string::npos ? end : end + 3 - at);
    }
    return *text;
}

// Listed in the order of a receipt; links are not followed.
std::vector<std::string> pathsBelow(const std::string& directory)
{
    std::vector<std::string> paths;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
        paths.push_back(entry.path().lexically_relative(directory).string());
    }
    std::sort(paths.begin(), paths.end(), standsBefore);
    return paths;
}

Component componentFrom(const std::string& directory)
{
    const std::string info = readMarkup(directory + "/PackageInfo");
    const std::string tag = tagIn(info, "pkg-info").value_or("");
    const std::string location = attributeIn(tag, "install-location");
    Component component{attributeIn(tag, "identifier"),
                        attributeIn(tag, "version"),
                        location.empty() ? "/" : location,
                        "",
                        "",
                        {}};
    if (component.identifier.empty())
        throw Failure("A PackageInfo names no identifier.");
    if (fs::exists(directory + "/Payload")) {
        component.payload = directory + "/payload.unpacked";
        unpack(directory + "/Payload", component.payload);
        component.paths = pathsBelow(component.payload);
    }
    if (fs::exists(directory + "/Scripts")) {
        component.scripts = directory + "/scripts.unpacked";
        unpack(directory + "/Scripts", component.scripts);
    }
    return component;
}

// Percent signs escape what may not stand in a reference, as in "#My%20Part.pkg".
std::string unescaped(const std::string& text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            result += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

// A reference to a component package in the archive reads <pkg-ref ...>#NAME.pkg</pkg-ref>.
std::vector<std::string> referencesIn(const std::string& distribution)
{
    std::vector<std::string> names;
    for (std::size_t at = distribution.find("<pkg-ref"); at != std::string::npos;
         at = distribution.find("<pkg-ref", at + 1)) {
        const std::size_t start = distribution.find('>', at) + 1;
        if (start == 0 || distribution[start - 2] == '/')
            continue;
        const std::string text = distribution.substr(start, distribution.find('<', start) - start);
        const std::size_t hash = text.find('#');
        if (hash == std::string::npos)
            continue;
        const std::size_t end = text.find_last_not_of(" \t\r\n");
        const std::string name = unescaped(decoded(text.substr(hash + 1, end - hash)));
        if (std::find(names.begin(), names.end(), name) == names.end())
            names.push_back(name);
    }
    return names;
}

void requireAllowed(const std::string& distribution, const Target& target)
{
    const std::optional<std::string> domains = tagIn(distribution, "domains");
    const char* domain = target.path == "/" ? "enable_localSystem" : "enable_currentUserHome";
    if (domains && attributeIn(*domains, domain) != "true") {
        throw Failure("This package cannot be installed on " + target.path + ".");
    }
}

} // namespace

std::vector<Component> unpackPackage(const Request& request, const std::string& sandbox)
{
    unpack(request.package, sandbox);
    if (!fs::exists(sandbox + "/Distribution"))
        return {componentFrom(sandbox)};
    const std::string distribution = readMarkup(sandbox + "/Distribution");
    requireAllowed(distribution, request.target);
    std::vector<Component> components;
    for (const std::string& name : referencesIn(distribution)) {
        components.push_back(componentFrom(sandbox + "/" + name));
    }
    if (components.empty())
        throw Failure("The Distribution names no component package.");
    return components;
}
