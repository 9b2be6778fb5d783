#include "plan/pending_install.h"

#include "fuzz/property.h"

namespace maintenance::fuzz {
namespace {

void examine(std::string_view text)
{
    PendingInstall attempt;
    if (!accepts([&] { attempt = parsePending(text); }))
        return;
    const std::string written = pendingInstallText(attempt);
    require(written.size() <= text.size() + 1, "nothing is added but a last line feed");
    PendingInstall again;
    require(accepts([&] { again = parsePending(written); }), "what is written is accepted");
    require(pendingInstallText(again) == written, "what is written has one spelling");
}

} // namespace
} // namespace maintenance::fuzz

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    maintenance::fuzz::examine(maintenance::fuzz::textOf(data, size));
    return 0;
}
