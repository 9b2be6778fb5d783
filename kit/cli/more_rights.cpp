#include "kit/cli/more_rights.h"

#include <unistd.h>

namespace maintenance::kit {

std::string withMoreRights(const std::string& words)
{
    return ::geteuid() == 0 ? "" : "sudo tpm-kit " + words;
}

} // namespace maintenance::kit
