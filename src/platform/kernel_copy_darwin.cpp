#include "platform/kernel_copy.h"

namespace maintenance {

// The system shares content only with a file that the same call creates under a name, with mode, access list
// and extended attributes of the original. Here the copy is a file of our own making that carries nothing but
// bytes.
bool shareContent(int, int) { return false; }

ssize_t copyContent(int, int, std::size_t) { return -1; }

} // namespace maintenance
