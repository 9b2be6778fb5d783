#include "plan/plan.h"

#include "fs/sha256.h"
#include "fuzz/property.h"

namespace maintenance::fuzz {
namespace {

/// The one spelling of a plan.
std::string spellingOf(const Plan& plan)
{
    std::string text = "schema=tamarind.pelican.macos-maintenance-plan.v1\nsku=" + plan.sku +
                       "\npackageRevision=" + plan.packageRevision + "\n";
    for (const auto& [id, version] : plan.products)
        text += "product=" + id + "\t" + version + "\n";
    for (const PlanComponent& component : plan.components) {
        const std::string index = std::to_string(component.index);
        text += "component=" + index + "\t" + component.product + "\t" + component.packageId + "\t" +
                component.version + "\n";
        for (const auto& [path, digest] : component.targets)
            text += "target=" + index + "\t" + path + "\t" + digest + "\n";
    }
    return text;
}

void examine(std::string_view text)
{
    Plan plan;
    if (!accepts([&] { plan = parsePlanText(text); }))
        return;
    require(spellingOf(plan) == text, "a plan has one spelling only");
    require(plan.sha256 == sha256OfText(text), "a plan's digest is that of its text");
}

} // namespace
} // namespace maintenance::fuzz

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    maintenance::fuzz::examine(maintenance::fuzz::textOf(data, size));
    return 0;
}
