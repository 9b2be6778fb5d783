#pragma once

#include "kit/payload/payload.h"
#include "kit/payload/product_list.h"
#include "plan/plan.h"

namespace maintenance::kit {

/// Makes a plan of a product list and the payload of its installation.
///
/// findings  gets what does not fit: packages or bundles that no product of the list has, files in the wrong
///           package, components without files, other versions
/// returns   the plan, which is worth something only when nothing was found
Plan assemblePlan(const ProductList& list, const Payload& payload, FindingList& findings);

} // namespace maintenance::kit
