#include "plan/descriptor.h"

#include "fs/fixed_directory.h"
#include "fs/fixed_file.h"
#include "fs/sha256.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/owned_path.h"
#include "validate/text_fields.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>

namespace maintenance {

namespace {

constexpr std::string_view descriptorSchema = "tamarind.pelican.macos-maintenance.v2";
constexpr const char* subject = "maintenance descriptor";
constexpr std::array<std::string_view, 6> scalarKeys = {"schema",      "sku",         "packageRevision",
                                                        "sourceScope", "targetScope", "decision"};
constexpr std::array<const char*, 5> layout = {"Inbox", "Transactions", "Products", "NativeReceipts",
                                               "Completed"};

[[noreturn]] void refuse(const char* reason) { throw Invalid(std::string(subject) + " " + reason); }

/// What the lines of a descriptor have given so far; the sets borrow from its text.
struct DescriptorReader {
    Descriptor descriptor;
    std::map<std::string, std::string, std::less<>> scalars;
    std::unordered_set<std::string_view> productIds;
    std::unordered_set<std::string_view> paths;
};

bool isScalarKey(std::string_view key)
{
    return std::find(scalarKeys.begin(), scalarKeys.end(), key) != scalarKeys.end();
}

void readProduct(DescriptorReader& reader, std::string_view value)
{
    const auto fields = splitExactly<3>(value, '\t');
    if (!fields)
        refuse("has an invalid product");
    const auto& [id, source, target] = *fields;
    const bool valid = safeId(id) && (source == "-" || safeVersion(source)) && safeVersion(target) &&
                       reader.productIds.insert(id).second;
    if (!valid)
        refuse("has an invalid product");
    reader.descriptor.products.push_back({std::string(id), std::string(source), std::string(target)});
}

void readTarget(DescriptorReader& reader, std::string_view value)
{
    const auto fields = splitExactly<5>(value, '\t');
    if (!fields)
        refuse("has an invalid target file");
    const auto& [product, packageId, version, path, sha256] = *fields;
    std::string owned = safeRelative(path);
    if (!safeVersion(version) || !isDigest(sha256) || !reader.paths.insert(path).second)
        refuse("has an invalid or duplicate file");
    reader.descriptor.files.push_back({std::string(product), std::string(packageId), std::string(version),
                                       std::string(sha256), std::move(owned)});
}

void readLine(DescriptorReader& reader, std::string_view text)
{
    const KeyValue line = requireFieldLine(text, subject);
    if (isScalarKey(line.key)) {
        if (!reader.scalars.emplace(line.key, line.value).second)
            refuse("repeats a field");
    } else if (line.key == "product") {
        readProduct(reader, line.value);
    } else if (line.key == "target") {
        readTarget(reader, line.value);
    } else {
        refuse("contains an unknown field");
    }
}

bool isDecision(std::string_view text) { return text == "none" || text == "adopt" || text == "replace"; }

void takeBinding(DescriptorReader& reader, const std::string& scope)
{
    if (reader.scalars.size() != scalarKeys.size())
        refuse("is incomplete");
    Descriptor& descriptor = reader.descriptor;
    descriptor.sku = reader.scalars["sku"];
    descriptor.packageRevision = reader.scalars["packageRevision"];
    descriptor.sourceScope = reader.scalars["sourceScope"];
    descriptor.targetScope = reader.scalars["targetScope"];
    descriptor.decision = reader.scalars["decision"];
    const bool valid = reader.scalars["schema"] == descriptorSchema && safeId(descriptor.sku) &&
                       isRevision(descriptor.packageRevision) && descriptor.targetScope == scope &&
                       (descriptor.sourceScope == "none" || isScope(descriptor.sourceScope)) &&
                       descriptor.sourceScope != descriptor.targetScope && isDecision(descriptor.decision);
    if (!valid)
        refuse("binding is invalid");
}

void requireCommonFile(const File& file, const std::string& revision)
{
    if (file.packageId != commonPackageId || !isRevision(file.version))
        refuse("has an invalid common component");
    if (file.version != revision)
        refuse("has an inconsistent common revision");
}

void requireProductFile(const File& file, const Product* product)
{
    if (product == nullptr)
        refuse("file names an unknown product");
    const char* kind = file.path.find("/VST3/") != std::string::npos ? "vst3" : "au";
    if (file.packageId != productPackageId(product->id, kind))
        refuse("package identity drifted");
    if (file.version != product->targetVersion)
        refuse("target version drifted");
}

void requireContent(const Descriptor& descriptor)
{
    std::unordered_map<std::string_view, const Product*> products;
    for (const Product& product : descriptor.products)
        products.emplace(product.id, &product);

    std::set<std::string_view> commonPaths;
    std::unordered_set<std::string_view> productsWithFiles;
    const File* firstCommon = nullptr;
    for (const File& file : descriptor.files) {
        productsWithFiles.insert(file.product);
        if (file.product == commonProduct) {
            firstCommon = firstCommon == nullptr ? &file : firstCommon;
            requireCommonFile(file, firstCommon->version);
            commonPaths.insert(file.path);
        } else {
            const auto product = products.find(file.product);
            requireProductFile(file, product == products.end() ? nullptr : product->second);
        }
    }
    if (commonPaths != std::set<std::string_view>{maintenanceExecutable, updaterExecutable})
        refuse("has an incomplete common component");
    for (const Product& product : descriptor.products)
        if (!productsWithFiles.contains(product.id))
            refuse("product has no files");
}

/// Appends `keyword` and the fields, separated by tabs, as one line.
void appendLine(std::string& text, std::string_view keyword, std::initializer_list<std::string_view> fields)
{
    text += keyword;
    bool first = true;
    for (const std::string_view field : fields) {
        if (!first)
            text += '\t';
        text += field;
        first = false;
    }
    text += '\n';
}

void appendProduct(std::string& text, std::string_view keyword, const Product& product)
{
    appendLine(text, keyword, {product.id, product.sourceVersion, product.targetVersion});
}

void appendFile(std::string& text, std::string_view keyword, const File& file)
{
    appendLine(text, keyword, {file.product, file.packageId, file.version, file.path, file.sha256});
}

/// Makes room for the lines of all files at once; a text that grows would hold twice the memory meanwhile.
void reserveForFiles(std::string& text, const std::vector<File>& files)
{
    constexpr std::size_t separators = 16;
    std::size_t size = text.size();
    for (const File& file : files)
        size += file.product.size() + file.packageId.size() + file.version.size() + file.path.size() +
                file.sha256.size() + separators;
    text.reserve(size);
}

/// The records in the order of what `key` says of them.
template <typename Record, typename Key>
std::vector<const Record*> sortedBy(const std::vector<Record>& records, Key key)
{
    std::vector<const Record*> sorted;
    sorted.reserve(records.size());
    for (const Record& record : records)
        sorted.push_back(&record);
    std::sort(sorted.begin(), sorted.end(),
              [key](const Record* one, const Record* other) { return one->*key < other->*key; });
    return sorted;
}

} // namespace

FixedPlace descriptorPlace(const std::string& scope, const std::string& id)
{
    return placeInScope(scope, descriptorPath(scope, id));
}

std::filesystem::path descriptorPath(const std::string& scope, const std::string& id)
{
    return maintenanceRoot(scope) / "Inbox" / (id + ".tpmt");
}

void validateLayout(const std::string& scope)
{
    openFixedDirectory(scope, maintenanceDirectory, true, true);
    for (const char* directory : layout)
        openFixedDirectory(scope, std::string(maintenanceDirectory) + "/" + directory, true, true);
}

Descriptor parse(const std::string& scope, const std::string& id)
{
    const ExaminedFile file = regular(descriptorPlace(scope, id), subject);
    if ((file.status.st_mode & (S_IWGRP | S_IWOTH)) != 0 || file.status.st_uid != scopeOwner(scope) ||
        file.status.st_size > largestMetadata)
        refuse("permissions are unsafe");
    return parseDescriptorText(readContent(openExamined(file, subject), subject), scope, id);
}

Descriptor parseDescriptorText(std::string_view text, const std::string& scope, const std::string& id)
{
    DescriptorReader reader;
    for (const std::string_view line : splitLines(text))
        readLine(reader, line);
    takeBinding(reader, scope);
    requireContent(reader.descriptor);
    reader.descriptor.id = id;
    reader.descriptor.fileSha256 = sha256OfText(text);
    return std::move(reader.descriptor);
}

std::string descriptorText(const Descriptor& descriptor)
{
    std::string text = "schema=" + std::string(descriptorSchema) + "\nsku=" + descriptor.sku +
                       "\npackageRevision=" + descriptor.packageRevision +
                       "\nsourceScope=" + descriptor.sourceScope + "\ntargetScope=" + descriptor.targetScope +
                       "\ndecision=" + descriptor.decision + "\n";
    for (const Product& product : descriptor.products)
        appendProduct(text, "product=", product);
    reserveForFiles(text, descriptor.files);
    for (const File& file : descriptor.files)
        appendFile(text, "target=", file);
    return text;
}

std::string canonical(const Descriptor& descriptor)
{
    std::string text = std::string(descriptorSchema) + "\n" + descriptor.sku + "\n" +
                       descriptor.packageRevision + "\n" + descriptor.sourceScope + "\n" +
                       descriptor.targetScope + "\n" + descriptor.decision + "\n" + descriptor.id + "\n";
    for (const Product* product : sortedBy(descriptor.products, &Product::id))
        appendProduct(text, "product\t", *product);
    reserveForFiles(text, descriptor.files);
    for (const File* file : sortedBy(descriptor.files, &File::path))
        appendFile(text, "target\t", *file);
    return text;
}

} // namespace maintenance
