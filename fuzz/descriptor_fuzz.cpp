#include "plan/descriptor.h"

#include "fuzz/property.h"

#include <algorithm>

namespace maintenance::fuzz {
namespace {

void examine(std::string_view text)
{
    const std::string id = "install-1";
    Descriptor descriptor;
    const std::string scope = text.find("targetScope=system") == std::string_view::npos ? "user" : "system";
    if (!accepts([&] { descriptor = parseDescriptorText(text, scope, id); }))
        return;
    const std::string written = descriptorText(descriptor);
    Descriptor again;
    require(accepts([&] { again = parseDescriptorText(written, scope, id); }), "what is written is accepted");
    require(descriptorText(again) == written, "what is written has one spelling");
    require(canonical(again) == canonical(descriptor), "what is written means the same");

    std::reverse(again.products.begin(), again.products.end());
    std::reverse(again.files.begin(), again.files.end());
    require(canonical(again) == canonical(descriptor), "the canonical text does not depend on any order");
}

} // namespace
} // namespace maintenance::fuzz

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    maintenance::fuzz::examine(maintenance::fuzz::textOf(data, size));
    return 0;
}
