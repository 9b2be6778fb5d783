#pragma once

#include <cstddef>
#include <sys/types.h>

namespace maintenance {

/// Makes the empty file open as `to` share the whole content of the file open as `from` (both borrowed), as
/// of one moment and without moving a byte. The offsets stay. Returns false, with nothing lost, where the
/// file system cannot do that.
bool shareContent(int from, int to);

/// Lets the kernel copy up to `most` bytes from the offset of `from` to that of `to`, and moves both offsets
/// on. Returns the count of bytes copied, 0 at the end of `from`, -1 where the kernel cannot do it; the
/// caller then goes on by reading and writing, which tells what is wrong.
ssize_t copyContent(int from, int to, std::size_t most);

} // namespace maintenance
