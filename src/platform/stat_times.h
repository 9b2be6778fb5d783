#pragma once

#include <sys/stat.h>
#include <time.h>

namespace maintenance {

#ifdef __APPLE__
/// The time of the last change of the file's content.
inline const timespec& modificationTime(const struct stat& status) { return status.st_mtimespec; }
/// The time of the last change of the file's content or status.
inline const timespec& statusChangeTime(const struct stat& status) { return status.st_ctimespec; }
#else
/// The time of the last change of the file's content.
inline const timespec& modificationTime(const struct stat& status) { return status.st_mtim; }
/// The time of the last change of the file's content or status.
inline const timespec& statusChangeTime(const struct stat& status) { return status.st_ctim; }
#endif

} // namespace maintenance
