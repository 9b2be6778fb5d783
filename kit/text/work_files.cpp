#include "kit/text/work_files.h"

#include "fs/scope.h"
#include "fs/sha256.h"
#include "kit/report/printable.h"
#include "kit/report/sheet.h"
#include "plan/plan.h"
#include "validate/text_fields.h"

namespace maintenance::kit {

namespace {

/// The heading of a package and, below it, its files.
std::string packageHeading(const std::string& packageId, const std::string& version, const Paint& paint)
{
    return "\n" + paint.strong(packageId) + " " + version + "\n";
}

std::string fileLine(const std::string& sha256, const std::string& path, const Paint& paint)
{
    return "  " + paint.faint(shortDigest(sha256)) + "  " + path + "\n";
}

std::size_t fileCount(const Plan& plan)
{
    std::size_t count = 0;
    for (const PlanComponent& component : plan.components)
        count += component.targets.size();
    return count;
}

Json planJson(const Plan& plan)
{
    Json json;
    json["kind"] = "plan";
    json["sku"] = plan.sku;
    json["packageRevision"] = plan.packageRevision;
    json["sha256"] = plan.sha256;
    json["products"] = Json::array();
    for (const auto& [id, version] : plan.products)
        json["products"].push_back({{"id", id}, {"version", version}});
    json["components"] = Json::array();
    for (const PlanComponent& component : plan.components) {
        Json targets = Json::array();
        for (const auto& [path, sha256] : component.targets)
            targets.push_back({{"path", path}, {"sha256", sha256}});
        json["components"].push_back({{"index", component.index},
                                      {"product", component.product},
                                      {"packageId", component.packageId},
                                      {"version", component.version},
                                      {"targets", std::move(targets)}});
    }
    return json;
}

std::string planSheet(const Plan& plan, const Paint& paint)
{
    Sheet sheet;
    sheet.add("transaction plan", plan.sku);
    sheet.add("package revision", plan.packageRevision);
    for (const auto& [id, version] : plan.products)
        sheet.add("installs", id + " " + version);
    sheet.add("content",
              counted(plan.components.size(), "package") + ", " + counted(fileCount(plan), "file"));
    sheet.add("SHA-256", plan.sha256);
    std::string text = sheet.text(paint);
    for (const PlanComponent& component : plan.components) {
        text += packageHeading(component.packageId, component.version, paint);
        for (const auto& [path, sha256] : component.targets)
            text += fileLine(sha256, path, paint);
    }
    return text;
}

Json descriptorJson(const Descriptor& descriptor)
{
    Json json;
    json["kind"] = "descriptor";
    if (!descriptor.id.empty())
        json["id"] = descriptor.id;
    json["sku"] = descriptor.sku;
    json["packageRevision"] = descriptor.packageRevision;
    json["sourceScope"] = descriptor.sourceScope;
    json["targetScope"] = descriptor.targetScope;
    json["decision"] = descriptor.decision;
    json["sha256"] = descriptor.fileSha256;
    if (!descriptor.id.empty())
        json["canonicalSha256"] = sha256OfText(canonical(descriptor));
    json["products"] = Json::array();
    for (const Product& product : descriptor.products)
        json["products"].push_back({{"id", product.id},
                                    {"recordedVersion", product.sourceVersion},
                                    {"targetVersion", product.targetVersion}});
    json["files"] = Json::array();
    for (const File& file : descriptor.files)
        json["files"].push_back({{"product", file.product},
                                 {"packageId", file.packageId},
                                 {"version", file.version},
                                 {"path", file.path},
                                 {"sha256", file.sha256}});
    return json;
}

std::string descriptorSheet(const Descriptor& descriptor, const Paint& paint)
{
    Sheet sheet;
    sheet.add("maintenance descriptor", descriptor.id.empty() ? "(identifier not known)" : descriptor.id);
    sheet.add("installation", descriptor.sku + ", package revision " + descriptor.packageRevision);
    sheet.add("from scope", descriptor.sourceScope);
    sheet.add("to scope", descriptor.targetScope);
    sheet.add("decision", descriptor.decision);
    for (const Product& product : descriptor.products)
        sheet.add("product",
                  product.id + " " + product.targetVersion +
                      (product.sourceVersion == "-" ? ", none recorded as installed"
                                                    : ", installed when recorded: " + product.sourceVersion));
    sheet.add("content", counted(descriptor.files.size(), "file"));
    sheet.add("SHA-256", descriptor.fileSha256);
    std::string text = sheet.text(paint);
    std::string packageId;
    for (const File& file : descriptor.files) {
        if (file.packageId != packageId)
            text += packageHeading(file.packageId, file.version, paint);
        packageId = file.packageId;
        text += fileLine(file.sha256, file.path, paint);
    }
    return text;
}

} // namespace

std::string targetScopeOf(std::string_view text)
{
    for (const std::string_view line : splitLines(text))
        if (const auto field = splitKeyValue(line);
            field && field->key == "targetScope" && isScope(field->value))
            return std::string(field->value);
    return "user";
}

ToolFile showPlan(std::string_view text, const Paint& paint)
{
    const Plan plan = parsePlanText(text);
    return {FileKind::Plan, planJson(plan), planSheet(plan, paint)};
}

ToolFile showDescriptor(std::string_view text, const std::string& id, const Paint& paint)
{
    const Descriptor descriptor = parseDescriptorText(text, targetScopeOf(text), id);
    return {FileKind::Descriptor, descriptorJson(descriptor), descriptorSheet(descriptor, paint)};
}

} // namespace maintenance::kit
