#pragma once

#include "pkgutil/rules.h"

/// The number of a call, as the selectors `call` and `nth` see it.
struct CallNumbers {
    unsigned long call = 0;         ///< among all calls
    std::vector<unsigned long> nth; ///< for each rule, among the calls it selects by anything but its number
};

/// Counts `call` in /run/pkgutil-stand-in.calls and returns its numbers; callers at the same time get
/// different ones. Counting begins anew when `edition` is another than at the call before, or the file is
/// empty. Throws BadControlFile if the file cannot be used.
///
/// edition  one line that tells one state of the control file from every other
CallNumbers countCall(const std::vector<Rule>& rules, const Call& call, const std::string& edition);
