#include "kit/payload/entry_rules.h"

#include "kit/report/printable.h"
#include "kit/text/words.h"
#include "validate/owned_path.h"
#include "validate/text_fields.h"

#include <algorithm>

namespace maintenance::kit {

namespace {

using Kind = PayloadEntry::Kind;

constexpr unsigned writableByOthers = 022;
/// What file systems accept as one name, in bytes.
constexpr std::size_t longestName = 255;
/// What the system accepts as one path, less the longest home and the bytes that end and join paths.
constexpr std::size_t longestPath = 1024 - 2 - 255;

std::string nameOf(std::string_view path) { return std::string(path.substr(path.rfind('/') + 1)); }

Finding about(const std::string& place, std::string rule, std::string advice, std::string message = {})
{
    return {Finding::Severity::Error, place, 0, {}, std::move(rule), std::move(message), std::move(advice)};
}

bool isLitter(std::string_view name) { return name.starts_with("._") || name == ".DS_Store"; }

std::string litterRule(std::string_view name)
{
    return name == ".DS_Store"
               ? "Finder's own files are no part of an installation"
               : "\"._\" files hold extended attributes; they are listed in a receipt but never "
                 "installed, so no commit could succeed";
}

constexpr const char* litterAdvice =
    "delete it; on a Mac clear the attributes with xattr -cr and build with COPYFILE_DISABLE=1";

Finding linkFinding(const PayloadEntry& entry, const std::string& place)
{
    if (entry.kind == Kind::SymbolicLink)
        return about(place, "a symbolic link cannot be owned", "put the file itself in its place",
                     "pkgutil receipt inventory contains a link or foreign file");
    if (entry.kind == Kind::Special)
        return about(place, "only files and directories can be installed", "take it out of the payload",
                     "pkgutil receipt inventory contains a link or foreign file");
    return about(place, "the file has several names (hard links)",
                 "copy it, so that each name is a file of its own",
                 "pkgutil receipt inventory contains a link or foreign file");
}

bool isLinkOrSpecial(const PayloadEntry& entry)
{
    return entry.kind == Kind::SymbolicLink || entry.kind == Kind::Special ||
           (entry.kind == Kind::File && entry.hardLinked);
}

std::string placeOf(const std::string& source, const std::string& path) { return source + "/" + path; }

} // namespace

std::string caseFolded(std::string_view text)
{
    std::string folded(text);
    for (char& c : folded)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return folded;
}

FindingList pathFindings(std::string_view path)
{
    FindingList findings;
    const std::vector<std::string> names = split(path, '/');
    const auto litter = std::find_if(names.begin(), names.end(), isLitter);
    if (litter != names.end())
        findings.push_back(about({}, litterRule(*litter), litterAdvice));
    if (std::any_of(names.begin(), names.end(),
                    [](const std::string& name) { return name.size() > longestName; }))
        findings.push_back(
            about({}, "a name of more than 255 bytes cannot be published", "give it a shorter name"));
    if (path.size() > longestPath)
        findings.push_back(about({},
                                 "a path of more than " + std::to_string(longestPath) +
                                     " bytes may be too long for the system below a home directory",
                                 "use shorter names or fewer directories"));
    if (path.starts_with(componentsDestination) && path.find("/VST3/") != std::string_view::npos)
        findings.push_back(about({},
                                 "a path with a directory \"VST3\" is taken for a file of the VST3 package",
                                 "give the directory inside the component another name",
                                 "maintenance descriptor package identity drifted"));
    return findings;
}

bool EntryRules::examine(const PayloadEntry& entry, const std::string& source, FindingList& findings)
{
    if (!examineName(entry, source, findings))
        return false;
    const std::string place = placeOf(source, entry.path);
    const bool wellSpelled = examineSpelling(entry, source, findings);
    if (isLinkOrSpecial(entry)) {
        findings.push_back(linkFinding(entry, place));
        return false;
    }
    bool allowed = true;
    if ((entry.mode & writableByOthers) != 0) {
        findings.push_back(about(place, "mode " + octalMode(entry.mode) + " lets the group or others write",
                                 "chmod go-w before the package is built"));
        allowed = false;
    }
    const bool owned = entry.kind == Kind::File && examineOwnedPath(entry, source, findings);
    return allowed && wellSpelled && owned;
}

/// Finds litter and names that the rules refuse. What lies in a refused directory is not reported again.
bool EntryRules::examineName(const PayloadEntry& entry, const std::string& source, FindingList& findings)
{
    for (std::size_t slash = entry.path.find('/'); slash != std::string::npos;
         slash = entry.path.find('/', slash + 1))
        if (reported_.contains(placeOf(source, entry.path.substr(0, slash))))
            return false;
    const std::string place = placeOf(source, entry.path);
    const std::string name = nameOf(entry.path);
    if (isLitter(name)) {
        reported_.insert(place);
        findings.push_back(about(place, litterRule(name), litterAdvice));
        return false;
    }
    const PathRefusal refusal = refusalOfRelativePath(entry.path);
    if (refusal.message.empty())
        return true;
    reported_.insert(place);
    findings.push_back(about(place, refusal.rule, refusal.advice, refusal.message));
    return false;
}

/// Finds two entries that are one on a file system that ignores case.
bool EntryRules::examineSpelling(const PayloadEntry& entry, const std::string& source, FindingList& findings)
{
    const std::string place = placeOf(source, entry.path);
    for (std::size_t end = 0; end != std::string::npos;) {
        end = entry.path.find('/', end + 1);
        const std::string part = entry.path.substr(0, end);
        const std::string& first = spellings_.emplace(caseFolded(part), part).first->second;
        if (first == part)
            continue;
        if (reported_.insert(placeOf(source, part)).second)
            findings.push_back(
                about(place, "differs from \"" + printable(first) + "\" only in case; on macOS both are one",
                      "spell both the same"));
        return false;
    }
    const auto [known, isNew] = kinds_.emplace(entry.path, entry.kind);
    if (isNew || (known->second == Kind::Directory && entry.kind == Kind::Directory))
        return true;
    findings.push_back(about(place, "the path is there twice", "let one package or tree bring it"));
    return false;
}

bool EntryRules::examineOwnedPath(const PayloadEntry& entry, const std::string& source, FindingList& findings)
{
    const PathRefusal refusal = refusalOfOwnedPath(entry.path);
    if (!refusal.message.empty()) {
        const std::string place = placeOf(source, outermostForeign(entry.path));
        if (reported_.insert(place).second)
            findings.push_back(about(place, refusal.rule, refusal.advice, refusal.message));
        return false;
    }
    FindingList found = pathFindings(entry.path);
    for (Finding& finding : found) {
        finding.place = placeOf(source, entry.path);
        findings.push_back(std::move(finding));
    }
    return found.empty();
}

} // namespace maintenance::kit
