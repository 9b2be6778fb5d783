#include "plan/plan.h"

#include "fs/fixed_file.h"
#include "fs/sha256.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/owned_path.h"
#include "validate/text_fields.h"

#include <array>
#include <fcntl.h>
#include <set>
#include <unistd.h>
#include <unordered_set>

namespace maintenance {

namespace {

constexpr std::string_view planSchema = "tamarind.pelican.macos-maintenance-plan.v1";
constexpr std::array<std::string_view, 3> headerKeys = {"schema", "sku", "packageRevision"};

[[noreturn]] void refuse(const char* reason)
{
    throw Invalid(std::string("embedded transaction plan ") + reason);
}

/// How far the lines of a plan have been read.
struct PlanReader {
    enum class Phase { Header, Products, Components };

    Plan plan;
    Phase phase = Phase::Header;
    /// Values of the header lines read so far, in the order of headerKeys.
    std::vector<std::string> header;
    /// Both borrow from the plan's text.
    std::unordered_set<std::string_view> packageIds;
    std::unordered_set<std::string_view> targetPaths;
};

bool isHeaderKey(std::string_view key)
{
    return key == headerKeys[0] || key == headerKeys[1] || key == headerKeys[2];
}

void readHeader(PlanReader& reader, const KeyValue& line)
{
    const std::size_t position = reader.header.size();
    if (reader.phase != PlanReader::Phase::Header || position == headerKeys.size() ||
        line.key != headerKeys[position])
        refuse("fields are not canonical");
    reader.header.emplace_back(line.value);
}

void readProduct(PlanReader& reader, std::string_view value)
{
    if (reader.phase == PlanReader::Phase::Components)
        refuse("fields are not canonical");
    const auto fields = splitExactly<2>(value, '\t');
    auto& products = reader.plan.products;
    const bool valid = fields && safeId(fields->front()) && safeVersion(fields->back()) &&
                       (products.empty() || fields->front() > products.back().first);
    if (!valid)
        refuse("has invalid product membership");
    products.emplace_back(fields->front(), fields->back());
    reader.phase = PlanReader::Phase::Products;
}

void readComponent(PlanReader& reader, std::string_view value)
{
    const auto fields = splitExactly<4>(value, '\t');
    if (!fields)
        refuse("has invalid component order or membership");
    const auto& [index, product, packageId, version] = *fields;
    auto& components = reader.plan.components;
    const bool valid = index == std::to_string(components.size()) && safeVersion(version) &&
                       safePackageId(packageId) && reader.packageIds.insert(packageId).second &&
                       (product != commonProduct || isRevision(version));
    if (!valid)
        refuse("has invalid component order or membership");
    components.push_back(
        {components.size(), std::string(product), std::string(packageId), std::string(version), {}});
    reader.phase = PlanReader::Phase::Components;
}

bool isOwnedPath(std::string_view text)
{
    try {
        safeRelative(text);
        return true;
    } catch (const Invalid&) {
        return false;
    }
}

void readTarget(PlanReader& reader, std::string_view value)
{
    auto& components = reader.plan.components;
    if (components.empty())
        refuse("target has no component");
    const auto fields = splitExactly<3>(value, '\t');
    if (!fields)
        refuse("has an invalid target file");
    const auto& [index, path, sha256] = *fields;
    if (index != std::to_string(components.size() - 1) || !isDigest(sha256) || !isOwnedPath(path))
        refuse("has an invalid target file");
    auto& targets = components.back().targets;
    const bool ascending = targets.empty() || path > targets.back().first;
    if (!ascending || !reader.targetPaths.insert(path).second)
        refuse("target order or ownership is invalid");
    targets.emplace_back(path, sha256);
}

void readLine(PlanReader& reader, std::string_view text)
{
    const KeyValue line = requireFieldLine(text, "embedded transaction plan");
    if (isHeaderKey(line.key))
        readHeader(reader, line);
    else if (line.key == "product")
        readProduct(reader, line.value);
    else if (line.key == "component")
        readComponent(reader, line.value);
    else if (line.key == "target")
        readTarget(reader, line.value);
    else
        refuse("contains an unknown field");
}

void takeIdentity(PlanReader& reader)
{
    if (reader.header.size() != headerKeys.size())
        refuse("is incomplete");
    if (reader.header[0] != planSchema || !safeId(reader.header[1]) || !isRevision(reader.header[2]) ||
        reader.plan.products.empty())
        refuse("identity is invalid");
    reader.plan.sku = reader.header[1];
    reader.plan.packageRevision = reader.header[2];
}

/// What a component must be, by its position in the plan.
struct ExpectedComponent {
    std::string product;
    std::string packageId;
    std::string version;
    /// What its target paths begin with.
    std::string_view destination;
};

std::vector<ExpectedComponent> expectedComponents(const Plan& plan)
{
    std::vector<ExpectedComponent> expected;
    for (const auto& [id, version] : plan.products) {
        expected.push_back({id, productPackageId(id, "vst3"), version, vst3Destination});
        expected.push_back({id, productPackageId(id, "au"), version, componentsDestination});
    }
    expected.push_back({std::string(commonProduct), std::string(commonPackageId), plan.packageRevision, {}});
    return expected;
}

void requireComponent(const PlanComponent& component, const ExpectedComponent& expected)
{
    if (component.product != expected.product || component.packageId != expected.packageId ||
        component.targets.empty() || component.version != expected.version)
        refuse("component binding is invalid");
    for (const auto& target : component.targets)
        if (!target.first.starts_with(expected.destination))
            refuse("target does not match its component");
}

void requireCommonTargets(const PlanComponent& common)
{
    std::set<std::string_view> paths;
    for (const auto& target : common.targets)
        paths.insert(target.first);
    if (paths != std::set<std::string_view>{maintenanceExecutable, updaterExecutable})
        refuse("common membership is incomplete");
}

void requireWholePlan(const Plan& plan)
{
    const std::vector<ExpectedComponent> expected = expectedComponents(plan);
    if (plan.components.size() != expected.size())
        refuse("component membership is incomplete");
    for (std::size_t i = 0; i < expected.size(); ++i)
        requireComponent(plan.components[i], expected[i]);
    requireCommonTargets(plan.components.back());
}

/// Opens the plan and proves that it is the file that was examined.
OpenFile openPlan(const std::filesystem::path& path)
{
    struct stat examined = {};
    constexpr mode_t relevant = S_IFMT | S_IWGRP | S_IWOTH;
    if (::lstat(path.c_str(), &examined) != 0 || (examined.st_mode & relevant) != S_IFREG ||
        examined.st_nlink != 1 || examined.st_uid != ::geteuid() || examined.st_size <= 0 ||
        examined.st_size > largestMetadata)
        refuse("is missing or unsafe");
    OpenFile plan{OwnedFd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)), {}};
    if (!plan.descriptor)
        refuse("cannot be opened safely");
    if (::fstat(plan.descriptor.get(), &plan.status) != 0 || !sameFile(plan.status, examined) ||
        plan.status.st_size > largestMetadata)
        refuse("changed during validation");
    return plan;
}

} // namespace

Plan parsePlan(const std::filesystem::path& path)
{
    const OpenFile plan = openPlan(path);
    const std::string text = readContent(plan, "embedded transaction plan");
    if (text.size() != static_cast<std::size_t>(plan.status.st_size))
        refuse("changed while being read");
    return parsePlanText(text);
}

Plan parsePlanText(std::string_view text)
{
    if (text.empty() || text.back() != '\n')
        refuse("is not canonical");
    PlanReader reader;
    for (const std::string_view line : splitLines(text))
        readLine(reader, line);
    takeIdentity(reader);
    requireWholePlan(reader.plan);
    reader.plan.sha256 = sha256OfText(text);
    return std::move(reader.plan);
}

} // namespace maintenance
