#include "kit/text/plan_diagnosis.h"

#include "kit/payload/entry_rules.h"
#include "kit/text/line_notes.h"
#include "kit/text/loadability.h"
#include "plan/plan.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/owned_path.h"
#include "validate/text_fields.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <set>

namespace maintenance::kit {

namespace {

constexpr const char* subject = "embedded transaction plan";
constexpr const char* planSchema = "tamarind.pelican.macos-maintenance-plan.v1";
constexpr std::size_t largestPlan = 1048576;

constexpr const char* notCanonical = "fields are not canonical";
constexpr const char* badProduct = "has invalid product membership";
constexpr const char* badComponent = "has invalid component order or membership";
constexpr const char* badTarget = "has an invalid target file";
constexpr const char* badOrder = "target order or ownership is invalid";

constexpr std::array<std::string_view, 3> headerKeys = {"schema", "sku", "packageRevision"};

struct ReadTarget {
    TextLine line;
    std::string path;
};

struct ReadComponent {
    TextLine line;
    std::string product;
    std::string packageId;
    std::string version;
    std::vector<ReadTarget> targets;
};

struct ReadProduct {
    TextLine line;
    std::string id;
    std::string version;
};

/// What the lines have given so far, wrong ones included as far as they make sense.
struct PlanReading {
    LineNotes notes;
    std::map<std::string, TextLine, std::less<>> header;
    std::vector<ReadProduct> products;
    std::vector<ReadComponent> components;
    std::map<std::string, std::size_t> packageLines;
    std::map<std::string, std::size_t> pathLines;
    std::set<std::string> productIds;
    /// A line could not be read, so that what seems to be missing may stand in it.
    bool productsInDoubt = false;
    bool componentsInDoubt = false;
    bool targetsInDoubt = false;
};

std::string fieldCountRule(const char* what, std::size_t expected, std::size_t found)
{
    return std::string(what) + ", separated by tabs; these are " + std::to_string(found) +
           " fields instead of " + std::to_string(expected);
}

std::string alreadyOnLine(std::size_t line)
{
    return " (it stands on line " + std::to_string(line) + " already)";
}

bool isHeaderKey(std::string_view key)
{
    return std::find(headerKeys.begin(), headerKeys.end(), key) != headerKeys.end();
}

void readHeader(PlanReading& reading, const TextLine& line, std::string_view key)
{
    const auto known = reading.header.find(key);
    if (known != reading.header.end()) {
        reading.notes.error(line, std::string(key) + " stands once" + alreadyOnLine(known->second.number),
                            notCanonical, "delete the line");
        return;
    }
    const bool late = !reading.products.empty() || !reading.components.empty() || reading.productsInDoubt ||
                      reading.componentsInDoubt;
    const bool next =
        reading.header.size() < headerKeys.size() && key == headerKeys.at(reading.header.size());
    reading.header.emplace(key, line);
    if (late || !next)
        reading.notes.error(line,
                            "a plan begins with the lines schema, sku and packageRevision, in this order",
                            notCanonical, "move the line");
}

void readProduct(PlanReading& reading, const TextLine& line, std::string_view value)
{
    const std::vector<std::string> fields = split(value, '\t');
    if (!reading.components.empty() || reading.componentsInDoubt)
        reading.notes.error(line, "all products stand before the first component", notCanonical,
                            "move the line");
    if (fields.size() != 2) {
        reading.productsInDoubt = true;
        reading.notes.error(line,
                            fieldCountRule("a product is its identifier and its version", 2, fields.size()),
                            badProduct);
        return;
    }
    if (!safeId(fields[0]))
        reading.notes.error(line, idRule, badProduct);
    if (!safeVersion(fields[1]))
        reading.notes.error(line, versionRule, badProduct);
    if (!reading.productIds.insert(fields[0]).second)
        reading.notes.error(line, "each product stands once", badProduct, "delete one of the lines");
    else if (!reading.products.empty() && fields[0] < reading.products.back().id)
        reading.notes.error(line, "products stand in ascending byte order of their identifiers", badProduct,
                            "sort the lines");
    reading.products.push_back({line, fields[0], fields[1]});
}

void readComponent(PlanReading& reading, const TextLine& line, std::string_view value)
{
    const std::vector<std::string> fields = split(value, '\t');
    if (fields.size() != 4) {
        reading.componentsInDoubt = true;
        reading.notes.error(
            line,
            fieldCountRule("a component is its index, its product, its package and its version", 4,
                           fields.size()),
            badComponent);
        return;
    }
    const std::string index = std::to_string(reading.components.size());
    if (fields[0] != index && !reading.componentsInDoubt)
        reading.notes.error(line, "components are numbered from 0; this one has index " + index,
                            badComponent);
    if (!safePackageId(fields[2]))
        reading.notes.error(line, packageIdRule, badComponent);
    if (!safeVersion(fields[3]))
        reading.notes.error(line, versionRule, badComponent);
    else if (fields[1] == commonProduct && !isRevision(fields[3]))
        reading.notes.error(
            line, std::string("the shared component's version is the package revision; ") + revisionRule,
            badComponent);
    const auto [known, isNew] = reading.packageLines.emplace(fields[2], line.number);
    if (!isNew)
        reading.notes.error(line, "each package stands once" + alreadyOnLine(known->second), badComponent);
    reading.components.push_back({line, fields[1], fields[2], fields[3], {}});
}

void readTarget(PlanReading& reading, const TextLine& line, std::string_view value)
{
    if (reading.components.empty()) {
        if (!reading.componentsInDoubt)
            reading.notes.error(line, "a target stands behind the component that it belongs to",
                                "target has no component");
        return;
    }
    const std::vector<std::string> fields = split(value, '\t');
    if (fields.size() != 3) {
        reading.targetsInDoubt = true;
        reading.notes.error(
            line, fieldCountRule("a target is its component's index, a path and a SHA-256", 3, fields.size()),
            badTarget);
        return;
    }
    ReadComponent& component = reading.components.back();
    const std::string index = std::to_string(reading.components.size() - 1);
    if (fields[0] != index && !reading.componentsInDoubt)
        reading.notes.error(line, "a target has the index of the component before it, here " + index,
                            badTarget);
    if (!isDigest(fields[2]))
        reading.notes.error(line, digestRule, badTarget);
    if (const PathRefusal refusal = refusalOfOwnedPath(fields[1]); !refusal.message.empty()) {
        reading.targetsInDoubt = true;
        reading.notes.path(line, refusal, badTarget);
        return;
    }
    const auto [known, isNew] = reading.pathLines.emplace(fields[1], line.number);
    if (!isNew)
        reading.notes.error(line, "each path stands once" + alreadyOnLine(known->second), badOrder,
                            "delete one of the lines");
    else if (!component.targets.empty() && fields[1] < component.targets.back().path)
        reading.notes.error(line, "the targets of a component stand in ascending byte order of their paths",
                            badOrder, "sort the lines");
    component.targets.push_back({line, fields[1]});
}

void readLine(PlanReading& reading, const TextLine& line)
{
    if (!reading.notes.takesApart(line)) {
        reading.productsInDoubt = reading.componentsInDoubt = reading.targetsInDoubt = true;
        return;
    }
    const KeyValue field = *splitKeyValue(line.text);
    if (isHeaderKey(field.key)) {
        readHeader(reading, line, field.key);
    } else if (field.key == "product") {
        readProduct(reading, line, field.value);
    } else if (field.key == "component") {
        readComponent(reading, line, field.value);
    } else if (field.key == "target") {
        readTarget(reading, line, field.value);
    } else {
        reading.productsInDoubt = reading.componentsInDoubt = reading.targetsInDoubt = true;
        reading.notes.error(
            line,
            "a plan has no such key; there are schema, sku, packageRevision, product, component "
            "and target",
            "contains an unknown field");
    }
}

std::string headerValue(const PlanReading& reading, std::string_view key)
{
    const auto found = reading.header.find(key);
    return found == reading.header.end() ? std::string()
                                         : std::string(splitKeyValue(found->second.text)->value);
}

void examineIdentity(PlanReading& reading)
{
    const auto line = [&](std::string_view key) { return reading.header.find(key)->second; };
    for (const std::string_view key : headerKeys)
        if (!reading.header.contains(key))
            reading.notes.error({}, "the line " + std::string(key) + "= is missing", "is incomplete");
    constexpr const char* badIdentity = "identity is invalid";
    if (reading.header.contains("schema") && headerValue(reading, "schema") != planSchema)
        reading.notes.error(line("schema"), std::string("the schema of a plan is ") + planSchema,
                            badIdentity);
    if (reading.header.contains("sku") && !safeId(headerValue(reading, "sku")))
        reading.notes.error(line("sku"), idRule, badIdentity);
    if (reading.header.contains("packageRevision") && !isRevision(headerValue(reading, "packageRevision")))
        reading.notes.error(line("packageRevision"), revisionRule, badIdentity);
    if (reading.products.empty() && !reading.productsInDoubt)
        reading.notes.error({}, "a plan lists at least one product", badIdentity);
}

/// What a component must be, by its position.
struct Expected {
    std::string product;
    std::string packageId;
    std::string version;
    std::string_view destination;
};

std::vector<Expected> expectedComponents(const PlanReading& reading)
{
    std::vector<Expected> expected;
    for (const ReadProduct& product : reading.products) {
        expected.push_back(
            {product.id, productPackageId(product.id, "vst3"), product.version, vst3Destination});
        expected.push_back(
            {product.id, productPackageId(product.id, "au"), product.version, componentsDestination});
    }
    expected.push_back({std::string(commonProduct),
                        std::string(commonPackageId),
                        headerValue(reading, "packageRevision"),
                        {}});
    return expected;
}

/// Says which components are missing and which are too many.
void examineMembership(PlanReading& reading, const std::vector<Expected>& expected)
{
    constexpr const char* incomplete = "component membership is incomplete";
    std::set<std::string> wanted;
    for (const Expected& component : expected) {
        wanted.insert(component.packageId);
        if (!reading.packageLines.contains(component.packageId))
            reading.notes.error(
                {}, "there is no component for the package " + component.packageId, incomplete,
                "every product has a .vst3 and an .au package, and the shared package comes last");
    }
    for (const ReadComponent& component : reading.components)
        if (!wanted.contains(component.packageId))
            reading.notes.error(component.line, "the package belongs to no product of the plan", incomplete);
}

void examineBinding(PlanReading& reading, const ReadComponent& component, const Expected& expected)
{
    constexpr const char* badBinding = "component binding is invalid";
    if (component.product != expected.product || component.packageId != expected.packageId)
        reading.notes.error(
            component.line,
            "components stand in the order of the products, the .vst3 package before the .au package "
            "and the shared package last; here belongs " +
                expected.product + " with the package " + expected.packageId,
            badBinding);
    else if (component.version != expected.version)
        reading.notes.error(component.line,
                            expected.product == commonProduct && expected.destination.empty()
                                ? "the shared component's version is the package revision"
                                : "a component has the version of its product",
                            badBinding);
    if (component.targets.empty() && !reading.targetsInDoubt)
        reading.notes.error(component.line, "a component has at least one target", badBinding);
    for (const ReadTarget& target : component.targets)
        if (!target.path.starts_with(expected.destination))
            reading.notes.error(target.line,
                                "the files of this package lie below \"" + std::string(expected.destination) +
                                    "\"",
                                "target does not match its component");
}

void examineCommonTargets(PlanReading& reading, const ReadComponent& common)
{
    constexpr const char* incomplete = "common membership is incomplete";
    const std::array<std::string_view, 2> executables = {maintenanceExecutable, updaterExecutable};
    for (const std::string_view path : executables)
        if (std::none_of(common.targets.begin(), common.targets.end(),
                         [&](const ReadTarget& target) { return target.path == path; }) &&
            !reading.targetsInDoubt)
            reading.notes.error(common.line, "the shared package brings \"" + std::string(path) + "\"",
                                incomplete);
    for (const ReadTarget& target : common.targets)
        if (std::find(executables.begin(), executables.end(), target.path) == executables.end())
            reading.notes.error(target.line, "the shared package brings the two executables and nothing else",
                                incomplete);
}

void examineWhole(PlanReading& reading)
{
    examineIdentity(reading);
    if (reading.productsInDoubt || reading.componentsInDoubt)
        return;
    const std::vector<Expected> expected = expectedComponents(reading);
    if (reading.components.size() != expected.size()) {
        examineMembership(reading, expected);
        return;
    }
    for (std::size_t i = 0; i < expected.size(); ++i)
        examineBinding(reading, reading.components[i], expected[i]);
    examineCommonTargets(reading, reading.components.back());
}

/// Notes what the tool accepts and an installation would suffer from.
void addWarnings(PlanReading& reading)
{
    for (const ReadProduct& product : reading.products)
        if (safeVersion(product.version) && hasHugeNumber(product.version))
            reading.notes.warning(product.line,
                                  "a number of a version is beyond 64 bits; once installed, no command "
                                  "could compare it any more",
                                  "choose another version");
    std::map<std::string, std::string> spellings;
    for (const ReadComponent& component : reading.components)
        for (const ReadTarget& target : component.targets) {
            for (const Finding& finding : pathFindings(target.path))
                if (finding.message.empty())
                    reading.notes.warning(target.line, finding.rule, finding.advice);
            const auto [known, isNew] = spellings.emplace(caseFolded(target.path), target.path);
            if (!isNew && known->second != target.path)
                reading.notes.warning(target.line,
                                      "differs from another path only in case; on macOS both are one",
                                      "spell both the same");
        }
}

std::optional<Plan> parsed(std::string_view text)
{
    try {
        return parsePlanText(text);
    } catch (const Invalid&) {
        return std::nullopt;
    }
}

/// Gives a finding about a file of the descriptor the line of the plan that lists the file.
void placeInPlan(Finding& finding, std::string_view text)
{
    constexpr std::size_t pathField = 3;
    const std::vector<std::string> fields = split(finding.text, '\t');
    if (fields.size() <= pathField)
        return;
    const std::string listed = "\t" + fields[pathField] + "\t";
    for (const TextLine& line : numberedLines(text))
        if (line.text.find(listed) != std::string_view::npos) {
            finding.line = line.number;
            finding.text = line.text;
            return;
        }
}

} // namespace

FindingList diagnosePlan(std::string_view text, const std::string& place)
{
    PlanReading reading{LineNotes(place, subject), {}, {}, {}, {}, {}, {}};
    if (text.size() > largestPlan)
        reading.notes.error({}, "a plan has at most 1048576 bytes, this one " + std::to_string(text.size()),
                            "is missing or unsafe", "install fewer files with one plan");
    if (text.empty()) {
        reading.notes.error({}, "the plan is empty", "is not canonical");
        return reading.notes.take();
    }
    for (const TextLine& line : numberedLines(text))
        readLine(reading, line);
    if (text.back() != '\n')
        reading.notes.error(numberedLines(text).back(), "the last line ends in a line feed like every other",
                            "is not canonical");
    examineWhole(reading);
    addWarnings(reading);
    noteForeignLineEnds(text, reading.notes);
    FindingList findings = reading.notes.take();
    if (const auto plan = parsed(text); plan && !hasErrors(findings))
        for (Finding& finding : loadabilityFindings(*plan, place)) {
            placeInPlan(finding, text);
            findings.push_back(std::move(finding));
        }
    return findings;
}

} // namespace maintenance::kit
