#include "kit/payload/comparison.h"

#include "kit/report/printable.h"
#include "kit/report/sheet.h"

#include <map>

namespace maintenance::kit {

namespace {

using Kind = Difference::Kind;

void compareFile(const std::string& path, const ListedFile& listed, const PayloadFile& found,
                 std::vector<Difference>& differences)
{
    if (listed.sha256 != found.sha256)
        differences.push_back({Kind::Content, path, listed.sha256, found.sha256});
    if (!found.packageId.empty() && found.packageId != listed.packageId)
        differences.push_back({Kind::Package, path, listed.packageId, found.packageId});
}

void compareFiles(const ListedFiles& listed, const Payload& payload, std::vector<Difference>& differences)
{
    auto expected = listed.begin();
    for (const PayloadFile& file : payload.files) {
        for (; expected != listed.end() && expected->first < file.path; ++expected)
            differences.push_back({Kind::Missing, expected->first, expected->second.sha256, {}});
        if (expected == listed.end() || expected->first != file.path) {
            differences.push_back({Kind::Extra, file.path, {}, file.sha256});
            continue;
        }
        compareFile(file.path, expected->second, file, differences);
        ++expected;
    }
    for (; expected != listed.end(); ++expected)
        differences.push_back({Kind::Missing, expected->first, expected->second.sha256, {}});
}

void compareVersions(const ListedFiles& listed, const Payload& payload, std::vector<Difference>& differences)
{
    std::map<std::string, std::string> versions;
    for (const auto& [path, file] : listed)
        versions.emplace(file.packageId, file.version);
    for (const PayloadPackage& package : payload.packages) {
        const auto known = versions.find(package.packageId);
        if (known == versions.end())
            differences.push_back({Kind::Package, package.place, {}, package.packageId});
        else if (known->second != package.version)
            differences.push_back({Kind::Version, package.packageId, known->second, package.version});
    }
}

const char* wordOf(Kind kind)
{
    switch (kind) {
    case Kind::Missing:
        return "missing";
    case Kind::Extra:
        return "extra";
    case Kind::Content:
        return "content";
    case Kind::Package:
        return "package";
    case Kind::Version:
        break;
    }
    return "version";
}

std::string described(const Difference& difference)
{
    const auto shown = [&](const std::string& text) {
        return difference.kind == Kind::Content ? shortDigest(text) : text.empty() ? "none" : printable(text);
    };
    return std::string(wordOf(difference.kind)) + ": listed " + shown(difference.listed) + ", found " +
           shown(difference.found);
}

std::string differenceLine(const Difference& difference, const Paint& paint)
{
    const std::string place = printable(difference.place, 4096);
    if (difference.kind == Kind::Missing)
        return paint.bad("- " + place) + "\n";
    if (difference.kind == Kind::Extra)
        return paint.good("+ " + place) + "\n";
    return paint.doubtful("~ " + place) + "  (" + described(difference) + ")\n";
}

} // namespace

std::vector<Difference> compareWithPayload(const ListedFiles& listed, const Payload& payload)
{
    std::vector<Difference> differences;
    compareFiles(listed, payload, differences);
    compareVersions(listed, payload, differences);
    return differences;
}

std::string differencesText(const std::vector<Difference>& differences, const Paint& paint)
{
    std::string text;
    for (const Difference& difference : differences)
        text += differenceLine(difference, paint);
    return text;
}

Json differencesJson(const std::vector<Difference>& differences)
{
    Json array = Json::array();
    for (const Difference& difference : differences) {
        Json json{{"difference", wordOf(difference.kind)}, {"place", printable(difference.place, 4096)}};
        if (!difference.listed.empty())
            json["listed"] = difference.listed;
        if (!difference.found.empty())
            json["found"] = printable(difference.found);
        array.push_back(std::move(json));
    }
    return array;
}

} // namespace maintenance::kit
