#include "kit/text/descriptor_diagnosis.h"

#include "fs/scope.h"
#include "kit/payload/entry_rules.h"
#include "kit/text/line_notes.h"
#include "validate/identifiers.h"
#include "validate/owned_path.h"
#include "validate/text_fields.h"

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <set>

namespace maintenance::kit {

namespace {

constexpr const char* subject = "maintenance descriptor";
constexpr const char* descriptorSchema = "tamarind.pelican.macos-maintenance.v2";
constexpr std::size_t largestDescriptor = 1048576;

constexpr const char* badProduct = "has an invalid product";
constexpr const char* badFile = "has an invalid or duplicate file";
constexpr const char* badBinding = "binding is invalid";

constexpr std::array<std::string_view, 6> scalarKeys = {"schema",      "sku",         "packageRevision",
                                                        "sourceScope", "targetScope", "decision"};

struct ReadProduct {
    TextLine line;
    std::string id;
    std::string targetVersion;
};

struct ReadFile {
    TextLine line;
    std::string product;
    std::string packageId;
    std::string version;
    std::string path;
};

/// What the lines have given so far, wrong ones included as far as they make sense.
struct DescriptorReading {
    LineNotes notes;
    std::map<std::string, TextLine, std::less<>> scalars;
    std::map<std::string, ReadProduct> products;
    std::vector<ReadFile> files;
    std::map<std::string, std::size_t> pathLines;
    /// A line could not be read, so that what seems to be missing may stand in it.
    bool productsInDoubt = false;
    bool filesInDoubt = false;
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

void readProduct(DescriptorReading& reading, const TextLine& line, std::string_view value)
{
    const std::vector<std::string> fields = split(value, '\t');
    if (fields.size() != 3) {
        reading.productsInDoubt = true;
        reading.notes.error(
            line,
            fieldCountRule("a product is its identifier, the version recorded as installed or \"-\", "
                           "and the version to be installed",
                           3, fields.size()),
            badProduct);
        return;
    }
    if (!safeId(fields[0]))
        reading.notes.error(line, idRule, badProduct);
    if (fields[1] != "-" && !safeVersion(fields[1]))
        reading.notes.error(line, std::string("the recorded version is \"-\" or a version; ") + versionRule,
                            badProduct);
    if (!safeVersion(fields[2]))
        reading.notes.error(line, versionRule, badProduct);
    const auto [known, isNew] = reading.products.emplace(fields[0], ReadProduct{line, fields[0], fields[2]});
    if (!isNew)
        reading.notes.error(line, "each product stands once" + alreadyOnLine(known->second.line.number),
                            badProduct, "delete one of the lines");
}

void readTarget(DescriptorReading& reading, const TextLine& line, std::string_view value)
{
    const std::vector<std::string> fields = split(value, '\t');
    if (fields.size() != 5) {
        reading.filesInDoubt = true;
        reading.notes.error(
            line,
            fieldCountRule("a target is a product, a package, a version, a path and a SHA-256", 5,
                           fields.size()),
            "has an invalid target file");
        return;
    }
    const PathRefusal refusal = refusalOfOwnedPath(fields[3]);
    if (!refusal.message.empty())
        reading.notes.path(line, refusal, nullptr);
    if (!safeVersion(fields[2]))
        reading.notes.error(line, versionRule, badFile);
    if (!isDigest(fields[4]))
        reading.notes.error(line, digestRule, badFile);
    const auto [known, isNew] = reading.pathLines.emplace(fields[3], line.number);
    if (!isNew)
        reading.notes.error(line, "each path stands once" + alreadyOnLine(known->second), badFile,
                            "delete one of the lines");
    reading.files.push_back({line, fields[0], fields[1], fields[2], fields[3]});
}

void readScalar(DescriptorReading& reading, const TextLine& line, std::string_view key)
{
    const auto [known, isNew] = reading.scalars.emplace(key, line);
    if (!isNew)
        reading.notes.error(line, std::string(key) + " stands once" + alreadyOnLine(known->second.number),
                            "repeats a field", "delete one of the lines");
}

void readLine(DescriptorReading& reading, const TextLine& line)
{
    if (!reading.notes.takesApart(line)) {
        reading.productsInDoubt = reading.filesInDoubt = true;
        return;
    }
    const KeyValue field = *splitKeyValue(line.text);
    if (std::find(scalarKeys.begin(), scalarKeys.end(), field.key) != scalarKeys.end()) {
        readScalar(reading, line, field.key);
    } else if (field.key == "product") {
        readProduct(reading, line, field.value);
    } else if (field.key == "target") {
        readTarget(reading, line, field.value);
    } else {
        reading.productsInDoubt = reading.filesInDoubt = true;
        reading.notes.error(
            line,
            "a descriptor has no such key; there are schema, sku, packageRevision, sourceScope, "
            "targetScope, decision, product and target",
            "contains an unknown field");
    }
}

/// Holds one of the single fields against its rule, where it is there.
void examineScalar(DescriptorReading& reading, std::string_view key, const std::string& rule,
                   const std::function<bool(std::string_view)>& allowed)
{
    const auto found = reading.scalars.find(key);
    if (found == reading.scalars.end())
        reading.notes.error({}, "the line " + std::string(key) + "= is missing", "is incomplete");
    else if (!allowed(splitKeyValue(found->second.text)->value))
        reading.notes.error(found->second, rule, badBinding);
}

void examineBinding(DescriptorReading& reading, const std::string& scope)
{
    examineScalar(reading, "schema", std::string("the schema of a descriptor is ") + descriptorSchema,
                  [](std::string_view value) { return value == descriptorSchema; });
    examineScalar(reading, "sku", idRule, safeId);
    examineScalar(reading, "packageRevision", revisionRule, isRevision);
    examineScalar(reading, "sourceScope", "the source scope is \"none\", \"user\" or \"system\"",
                  [](std::string_view value) { return value == "none" || isScope(value); });
    examineScalar(reading, "targetScope", "the target scope is that of the inbox, here \"" + scope + "\"",
                  [&](std::string_view value) { return value == scope; });
    examineScalar(
        reading, "decision", "the decision is \"none\", \"adopt\" or \"replace\"",
        [](std::string_view value) { return value == "none" || value == "adopt" || value == "replace"; });
    const auto source = reading.scalars.find("sourceScope");
    if (source != reading.scalars.end() && splitKeyValue(source->second.text)->value == scope)
        reading.notes.error(source->second, "a product is never moved into the scope that it comes from",
                            badBinding);
}

void examineCommonFile(DescriptorReading& reading, const ReadFile& file, const ReadFile& firstCommon)
{
    if (file.packageId != commonPackageId || !isRevision(file.version))
        reading.notes.error(file.line,
                            std::string("files of \"common\" belong to ") + std::string(commonPackageId) +
                                "; its version is a revision, " + revisionRule,
                            "has an invalid common component");
    if (file.version != firstCommon.version)
        reading.notes.error(file.line,
                            "all files of \"common\" have the version of the first one, on line " +
                                std::to_string(firstCommon.line.number),
                            "has an inconsistent common revision");
}

void examineProductFile(DescriptorReading& reading, const ReadFile& file)
{
    const auto product = reading.products.find(file.product);
    if (product == reading.products.end()) {
        if (!reading.productsInDoubt)
            reading.notes.error(file.line, "the product of a file has a product line",
                                "file names an unknown product");
        return;
    }
    const char* kind = file.path.find("/VST3/") != std::string::npos ? "vst3" : "au";
    const std::string packageId = productPackageId(product->second.id, kind);
    if (file.packageId != packageId)
        reading.notes.error(file.line, "this file belongs to the package " + packageId,
                            "package identity drifted");
    if (file.version != product->second.targetVersion)
        reading.notes.error(file.line,
                            "a file has the version to be installed of its product, on line " +
                                std::to_string(product->second.line.number),
                            "target version drifted");
}

void examineCompleteness(DescriptorReading& reading)
{
    if (reading.filesInDoubt)
        return;
    constexpr const char* incomplete = "has an incomplete common component";
    std::set<std::string> commonPaths;
    std::set<std::string> productsWithFiles;
    for (const ReadFile& file : reading.files) {
        productsWithFiles.insert(file.product);
        if (file.product == commonProduct)
            commonPaths.insert(file.path);
    }
    for (const std::string_view path : {maintenanceExecutable, updaterExecutable})
        if (commonPaths.erase(std::string(path)) == 0)
            reading.notes.error({}, "\"common\" has the file \"" + std::string(path) + "\"", incomplete);
    for (const ReadFile& file : reading.files)
        if (file.product == commonProduct && commonPaths.contains(file.path))
            reading.notes.error(file.line, "\"common\" has the two executables and nothing else", incomplete);
    for (const auto& [id, product] : reading.products)
        if (!productsWithFiles.contains(id))
            reading.notes.error(product.line, "every product has at least one file", "product has no files");
}

void examineContent(DescriptorReading& reading)
{
    const ReadFile* firstCommon = nullptr;
    for (const ReadFile& file : reading.files) {
        if (file.product != commonProduct) {
            examineProductFile(reading, file);
            continue;
        }
        firstCommon = firstCommon == nullptr ? &file : firstCommon;
        examineCommonFile(reading, file, *firstCommon);
    }
    examineCompleteness(reading);
}

/// Notes what the tool accepts and a transaction would suffer from.
void addWarnings(DescriptorReading& reading)
{
    for (const auto& [id, product] : reading.products) {
        if (safeVersion(product.targetVersion) && hasHugeNumber(product.targetVersion))
            reading.notes.warning(product.line,
                                  "a number of a version is beyond 64 bits, which no command can compare",
                                  "choose another version");
        for (const char* kind : {"vst3", "au"})
            if (const std::string packageId = productPackageId(id, kind);
                !reading.filesInDoubt &&
                std::none_of(reading.files.begin(), reading.files.end(),
                             [&](const ReadFile& file) { return file.packageId == packageId; }))
                reading.notes.warning(
                    product.line, "no file is in the package " + packageId,
                    "list the files of both packages; commit-move and uninstall-product need them",
                    "uninstall descriptor does not match the installed product");
    }
}

} // namespace

FindingList diagnoseDescriptor(std::string_view text, const std::string& place, const std::string& scope)
{
    DescriptorReading reading{LineNotes(place, subject), {}, {}, {}, {}};
    if (text.size() > largestDescriptor)
        reading.notes.error({},
                            "a descriptor has at most 1048576 bytes, this one " + std::to_string(text.size()),
                            "permissions are unsafe", "name fewer files in one descriptor");
    for (const TextLine& line : numberedLines(text))
        readLine(reading, line);
    examineBinding(reading, scope);
    examineContent(reading);
    addWarnings(reading);
    noteForeignLineEnds(text, reading.notes);
    return reading.notes.take();
}

} // namespace maintenance::kit
