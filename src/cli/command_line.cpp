#include "cli/command_line.h"

#include "cli/process.h"
#include "fs/fixed_directory.h"
#include "inventory/inspect.h"
#include "plan/begin_install.h"
#include "plan/descriptor.h"
#include "transaction/commit.h"
#include "transaction/prepare.h"
#include "transaction/rollback.h"
#include "uninstall/uninstall.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"

#include <array>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace maintenance {

namespace {

enum ExitStatus : int { Success = 0, Usage = 64, Rejected = 65, NoDescriptor = 66, Internal = 70 };

/// A descriptor that is not where it has to be; ends with a status of its own.
class DescriptorNotLocated : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

constexpr std::array<std::string_view, 5> descriptorCommands = {"inspect", "prepare-move", "commit-move",
                                                                "rollback-move", "uninstall-product"};

bool isDescriptorCommand(std::string_view word)
{
    for (const std::string_view command : descriptorCommands)
        if (word == command)
            return true;
    return false;
}

/// Tells whether the words, the program's name first, are one of the six command forms.
bool isCommandLine(const std::vector<std::string>& words)
{
    if (words.size() == 3)
        return words[1] == "begin-install" && isScope(words[2]);
    return words.size() == 4 && isDescriptorCommand(words[1]) && isScope(words[2]) && safeId(words[3]);
}

/// Tells whether every directory on the way from the scope root to `directory` that is there is a real one,
/// and `directory` is. Only looks: whatever is read later is reached by a walk of its own.
bool isReachedByDirectories(const std::string& scope, const std::filesystem::path& directory)
{
    std::filesystem::path reached = scopeRoot(scope);
    struct stat status = {};
    for (const std::filesystem::path& component : directory) {
        if (::lstat(reached.c_str(), &status) == 0 && !S_ISDIR(status.st_mode))
            return false;
        reached /= component;
    }
    return ::lstat(reached.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Requires the inbox to be reached from the scope root through real directories, and the named descriptor
/// to be a single-linked regular file in it.
void locateDescriptor(const std::string& scope, const std::string& id)
{
    const FixedPlace place = descriptorPlace(scope, id);
    if (!isReachedByDirectories(scope, parentOf(place.relative)))
        throw DescriptorNotLocated("maintenance descriptor directory is missing or unsafe");
    struct stat status = {};
    if (::lstat(absolutePath(place).c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_nlink != 1)
        throw DescriptorNotLocated("maintenance descriptor is missing or unsafe");
}

/// Says what is wrong with a directory above the inbox that cannot be entered.
void requireInbox(const std::string& scope)
{
    const std::string inbox(parentOf(descriptorPlace(scope, "").relative));
    if (!walkFixedDirectory(scope, inbox))
        openFixedDirectory(scope, inbox, false, true);
}

Descriptor loadDescriptor(const std::string& scope, const std::string& id)
{
    locateDescriptor(scope, id);
    requireInbox(scope);
    Descriptor descriptor = parse(scope, id);
    validateLayout(descriptor.targetScope);
    if (descriptor.sourceScope != "none")
        validateLayout(descriptor.sourceScope);
    return descriptor;
}

void runDescriptorCommand(const std::string& command, const Descriptor& descriptor)
{
    if (command == "inspect")
        writeResult(inspect(descriptor));
    else if (command == "prepare-move")
        prepare(descriptor);
    else if (command == "commit-move")
        commit(descriptor);
    else if (command == "rollback-move")
        rollback(descriptor);
    else
        uninstall(descriptor);
}

int report(std::string_view message, ExitStatus status)
{
    writeMessage(message);
    return status;
}

} // namespace

int runCommandLine(int argumentCount, char** arguments)
{
    try {
        const std::vector<std::string> words(arguments, arguments + argumentCount);
        if (!isCommandLine(words))
            return Usage;
        if (words.size() == 3)
            writeResult(beginInstall(words[2]) + "\n");
        else
            runDescriptorCommand(words[1], loadDescriptor(words[2], words[3]));
        return Success;
    } catch (const Invalid& error) {
        return report(error.what(), Rejected);
    } catch (const DescriptorNotLocated& error) {
        return report(error.what(), NoDescriptor);
    } catch (const std::exception& error) {
        return report(error.what(), Internal);
    }
}

} // namespace maintenance
