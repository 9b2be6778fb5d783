#include "transaction/prepared_state.h"

#include "fuzz/property.h"

namespace maintenance::fuzz {
namespace {

void examine(std::string_view text)
{
    PreparedState state;
    if (!accepts([&] { state = parsePreparedText(text); }))
        return;
    const std::string written = preparedText(state);
    require(written.size() <= text.size() + 1, "nothing is added but a last line feed");
    PreparedState again;
    require(accepts([&] { again = parsePreparedText(written); }), "what is written is accepted");
    require(preparedText(again) == written, "what is written has one spelling");
}

} // namespace
} // namespace maintenance::fuzz

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    maintenance::fuzz::examine(maintenance::fuzz::textOf(data, size));
    return 0;
}
