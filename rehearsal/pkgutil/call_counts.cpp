#include "pkgutil/call_counts.h"

#include "common/files.h"
#include "common/text.h"

#include <cstring>
#include <fcntl.h>
#include <sys/file.h>

namespace {

const char* const countFile = "/run/pkgutil-stand-in.calls";

[[noreturn]] void cannotCount()
{
    throw BadControlFile(std::string("cannot count calls in ") + countFile + ": " + std::strerror(errno));
}

// The file holds the edition, the number of calls and one number for each rule, a line each.
CallNumbers numbersBefore(const std::string& content, const std::string& edition, std::size_t rules)
{
    CallNumbers numbers{0, std::vector<unsigned long>(rules)};
    const std::vector<std::string> stored = lines(content);
    if (stored.size() != rules + 2 || stored[0] != edition)
        return numbers;
    numbers.call = number(stored[1]).value_or(0);
    for (std::size_t i = 0; i < rules; ++i) {
        numbers.nth[i] = number(stored[i + 2]).value_or(0);
    }
    return numbers;
}

} // namespace

CallNumbers countCall(const std::vector<Rule>& rules, const Call& call, const std::string& edition)
{
    const OwnedFd fd(::open(countFile, O_RDWR | O_CLOEXEC));
    std::string content;
    if (!fd || ::flock(fd.get(), LOCK_EX) != 0 || !readAll(fd.get(), content))
        cannotCount();

    CallNumbers numbers = numbersBefore(content, edition, rules.size());
    ++numbers.call;
    content = edition + "\n" + std::to_string(numbers.call) + "\n";
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const bool inCall = !rules[i].call || rules[i].call->contains(numbers.call);
        if (inCall && selects(rules[i], call))
            ++numbers.nth[i];
        content += std::to_string(numbers.nth[i]) + "\n";
    }
    if (::ftruncate(fd.get(), 0) != 0 || ::lseek(fd.get(), 0, SEEK_SET) != 0 ||
        !writeAll(fd.get(), content)) {
        cannotCount();
    }
    return numbers;
}
