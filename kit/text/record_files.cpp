#include "kit/text/record_files.h"

#include "fs/scope.h"
#include "kit/report/failure.h"
#include "kit/report/printable.h"
#include "kit/report/sheet.h"
#include "plan/pending_install.h"
#include "transaction/prepared_state.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/owned_path.h"
#include "validate/record_fields.h"
#include "validate/text_fields.h"

namespace maintenance::kit {

namespace {

constexpr const char* indexSchema = "tamarind.pelican.installed-products.v1";
constexpr const char* badIndex = "installed-products index is invalid";
constexpr const char* badManifest = "receipt snapshot manifest is invalid";
constexpr const char* badReceipt = "receipt identity snapshot is invalid";

/// A text member of an object of the index.
std::string member(const Json& object, const char* name)
{
    const auto found = object.is_object() ? object.find(name) : object.end();
    if (found == object.end() || !found->is_string())
        throw Invalid(badIndex);
    return found->get<std::string>();
}

/// The manifest's lines, each proven as the tool proves them before it acts on them.
struct ManifestLine {
    bool isReceipt;
    std::vector<std::string> fields;
};

ManifestLine readManifestLine(std::string_view line)
{
    ManifestLine read{line.starts_with("receipt\t"), split(line, '\t')};
    const auto& fields = read.fields;
    if (fields.size() != (read.isReceipt ? 4U : 3U) || !isSerial(fields.back()))
        throw Invalid(badManifest);
    if (read.isReceipt ? !safePackageId(fields[1]) || !safeVersion(fields[2]) : !isDigest(fields[1]))
        throw Invalid(badManifest);
    try {
        if (!read.isReceipt)
            safeRelative(fields[0]);
    } catch (const Invalid&) {
        throw Invalid(badManifest);
    }
    return read;
}

} // namespace

ToolFile showAttempt(std::string_view text, const Paint& paint)
{
    const PendingInstall attempt = parsePending(text);
    Json json;
    json["kind"] = "attempt";
    json["sku"] = attempt.sku;
    json["packageRevision"] = attempt.packageRevision;
    json["planSha256"] = attempt.planSha256;
    json["descriptorSha256"] = attempt.descriptorSha256;
    json["transaction"] = attempt.transaction;
    json["targetScope"] = attempt.targetScope;
    Sheet sheet;
    sheet.add("pending installation", attempt.sku + ", package revision " + attempt.packageRevision);
    sheet.add("to scope", attempt.targetScope);
    sheet.add("transaction", attempt.transaction);
    sheet.add("plan SHA-256", attempt.planSha256);
    sheet.add("descriptor SHA-256", attempt.descriptorSha256);
    return {FileKind::Attempt, std::move(json), sheet.text(paint)};
}

ToolFile showTransaction(std::string_view text, const Paint& paint)
{
    const PreparedState state = parsePreparedText(text);
    Json json;
    json["kind"] = "transaction";
    json["transaction"] = state.transaction;
    json["generation"] = state.generation;
    json["descriptorSha256"] = state.descriptorSha256;
    json["canonicalSha256"] = state.canonicalSha256;
    json["sourceScope"] = printable(state.sourceScope);
    json["targetScope"] = printable(state.targetScope);
    Sheet sheet;
    sheet.add("transaction", state.transaction);
    sheet.add("from scope", printable(state.sourceScope));
    sheet.add("to scope", printable(state.targetScope));
    sheet.add("generation", state.generation);
    sheet.add("descriptor SHA-256", state.descriptorSha256);
    sheet.add("canonical SHA-256", state.canonicalSha256);
    return {FileKind::Transaction, std::move(json), sheet.text(paint)};
}

ProductRecord parseProductRecord(std::string_view text)
{
    constexpr const char* badRecord = "product record is invalid";
    const RecordFields fields = readRecordFields(text, 2, badRecord);
    ProductRecord record{takeField(fields, "product", badRecord), takeField(fields, "version", badRecord)};
    if (!safeId(record.product) || !safeVersion(record.version))
        throw Invalid(badRecord);
    return record;
}

ToolFile showProductRecord(std::string_view text, const Paint& paint)
{
    const ProductRecord record = parseProductRecord(text);
    Sheet sheet;
    sheet.add("product record", record.product);
    sheet.add("version", record.version);
    return {FileKind::ProductRecord,
            {{"kind", "product-record"}, {"product", record.product}, {"version", record.version}},
            sheet.text(paint)};
}

std::vector<IndexedProduct> parseIndex(std::string_view text)
{
    Json json;
    try {
        json = parseJson(text, {}, {});
    } catch (const Failure&) {
        throw Invalid(badIndex);
    }
    const auto products = json.is_object() ? json.find("products") : json.end();
    if (products == json.end() || !products->is_array() || member(json, "schema") != indexSchema)
        throw Invalid(badIndex);
    std::vector<IndexedProduct> indexed;
    for (const Json& product : *products) {
        indexed.push_back(
            {member(product, "productId"), member(product, "scope"), member(product, "version")});
        if (!safeId(indexed.back().id) || !isScope(indexed.back().scope) ||
            !safeVersion(indexed.back().version))
            throw Invalid(badIndex);
    }
    return indexed;
}

ToolFile showIndex(std::string_view text, const Paint& paint)
{
    Json json{{"kind", "index"}, {"products", Json::array()}};
    Sheet sheet;
    sheet.add("installed products", "");
    for (const IndexedProduct& product : parseIndex(text)) {
        json["products"].push_back(
            {{"productId", product.id}, {"scope", product.scope}, {"version", product.version}});
        sheet.add("  " + product.id, product.version + " in the scope " + product.scope);
    }
    return {FileKind::Index, std::move(json), sheet.text(paint)};
}

ToolFile showManifest(std::string_view text, const Paint& paint)
{
    Json json{{"kind", "manifest"}, {"receipts", Json::array()}};
    std::string people;
    Json files = Json::array();
    std::string fileLines;
    for (const std::string_view line : splitLines(text)) {
        const ManifestLine read = readManifestLine(line);
        const auto& fields = read.fields;
        if (!read.isReceipt) {
            files.push_back({{"path", fields[0]}, {"sha256", fields[1]}, {"serial", fields[2]}});
            fileLines +=
                "  " + fields[2] + "  " + paint.faint(shortDigest(fields[1])) + "  " + fields[0] + "\n";
            continue;
        }
        json["receipts"].push_back({{"packageId", fields[1]},
                                    {"version", fields[2]},
                                    {"serial", fields[3]},
                                    {"files", std::exchange(files, Json::array())}});
        people += paint.strong(fields[1]) + " " + fields[2] + ", saved as receipts/" + fields[3] + "\n" +
                  std::exchange(fileLines, {});
    }
    if (text.empty())
        people = "manifest of no package: none of them was registered\n";
    if (!files.empty())
        json["filesWithoutReceipt"] = std::move(files);
    return {FileKind::Manifest, std::move(json), people + fileLines};
}

ToolFile showReceipt(std::string_view text, const Paint& paint)
{
    const auto lines = splitLines(text);
    constexpr std::string_view packageKey = "pkgutil=";
    constexpr std::string_view versionKey = "version=";
    constexpr std::string_view fileKey = "file=";
    if (lines.size() < 2 || !lines[0].starts_with(packageKey) || !lines[1].starts_with(versionKey))
        throw Invalid(badReceipt);
    const std::string packageId(lines[0].substr(packageKey.size()));
    const std::string version(lines[1].substr(versionKey.size()));
    if (!safePackageId(packageId) || !safeVersion(version))
        throw Invalid(badReceipt);
    Json json{{"kind", "receipt"}, {"packageId", packageId}, {"version", version}, {"files", Json::array()}};
    std::string people = paint.strong(packageId) + " " + version + "\n";
    for (std::size_t i = 2; i < lines.size(); ++i) {
        if (!lines[i].starts_with(fileKey))
            throw Invalid(badReceipt);
        const std::string path = printable(lines[i].substr(fileKey.size()), 4096);
        json["files"].push_back(path);
        people += "  " + path + "\n";
    }
    return {FileKind::Receipt, std::move(json), people};
}

ToolFile showLock()
{
    return {FileKind::Lock,
            {{"kind", "lock"}},
            "maintenance lock: it has no content, and the run that works in its scope holds it\n"};
}

ToolFile showAbsence(std::string_view text)
{
    if (text != absenceText)
        throw Invalid("it reads otherwise than \"absent\"");
    return {FileKind::Absence,
            {{"kind", "absence"}},
            "note that a file was not there when its transaction was prepared; its name is the file's number "
            "in the descriptor, from 0\n"};
}

} // namespace maintenance::kit
