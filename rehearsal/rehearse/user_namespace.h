#pragma once

#include <sys/types.h>

/// Gives the user namespace of the process `child` the ids of the root, 0 to 502 at least: with root's rights
/// the same ids as here, otherwise this account as 0 and its range of /etc/subuid and /etc/subgid as 1 and
/// above, by newuidmap and newgidmap. Throws Failure 77 with what is missing.
void mapIds(pid_t child);
