#include "kit/report/failure.h"

#include "kit/report/json.h"

namespace maintenance::kit {

std::string failureText(const Failure& failure)
{
    return std::string("tpm-kit: ") + failure.what() + "\n    to do: " + failure.advice() + "\n";
}

std::string failureJson(const Failure& failure)
{
    return jsonText({{"status", static_cast<int>(failure.status())},
                     {"error", failure.what()},
                     {"advice", failure.advice()}});
}

} // namespace maintenance::kit
