#pragma once

#include <string>
#include <sys/types.h>

/// An account that exists only inside the root.
struct Account {
    const char* name;
    uid_t uid;
    const char* fullName;
};

/// The accounts of the root, whose homes are /Users/NAME and whose group is staff.
constexpr Account accounts[] = {{"player", 501, "Player"}, {"other", 502, "Other"}};
constexpr gid_t staffGroup = 20;
constexpr gid_t adminGroup = 80;

/// Returns the account table of the root: ours, which are found first, and then the lines of `machine`.
std::string accountTable(const std::string& machine);

/// Returns the group table of the root: staff and admin, which are found first, and then the lines of
/// `machine`.
std::string groupTable(const std::string& machine);

/// Makes this process run as the account called `name` in every respect (real, effective and saved ids,
/// groups, HOME, USER, LOGNAME). Must be called inside the root. Throws Failure 125 "no account NAME in the
/// root" or "cannot become NAME: reason".
void becomeAccount(const std::string& name);
