#include "kit/text/plan_text.h"

namespace maintenance::kit {

std::string planText(const Plan& plan)
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

Descriptor freshDescriptor(const Plan& plan, const std::string& scope)
{
    // The identifier has the length of those that begin-install makes.
    Descriptor descriptor{
        plan.sku, plan.packageRevision, "none", scope, "none", "install-" + std::string(64, '0'), {}, {}, {}};
    for (const auto& [product, version] : plan.products)
        descriptor.products.push_back({product, "-", version});
    for (const PlanComponent& component : plan.components)
        for (const auto& [path, sha256] : component.targets)
            descriptor.files.push_back(
                {component.product, component.packageId, component.version, sha256, path});
    return descriptor;
}

} // namespace maintenance::kit
