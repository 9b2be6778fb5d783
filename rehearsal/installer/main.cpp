// Stands in for the package installer inside a rehearsal root; ../README.md describes it.

#include "common/receipts.h"
#include "installer/failure.h"
#include "installer/placing.h"
#include "installer/scripts.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sys/stat.h>

namespace {

/// A new directory that vanishes with everything in it.
class Sandbox {
public:
    Sandbox()
    {
        char name[] = "/tmp/installer.XXXXXX";
        if (::mkdtemp(name) == nullptr)
            failed("Cannot make a directory in /tmp");
        path_ = name;
    }
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;
    ~Sandbox()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    [[nodiscard]] const std::string& path() const { return path_; }

private:
    std::string path_;
};

void writeReceipts(const std::vector<Component>& components, const Target& target)
{
    const std::string directory = receiptDirectory(target.path);
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error)
        throw Failure("Cannot make " + directory + ": " + error.message());
    const std::string now = std::to_string(std::time(nullptr));
    for (const Component& component : components) {
        if (component.payload.empty())
            continue; // scripts alone leave no receipt
        const std::string& location = component.location;
        const std::string printed = location == "/" ? location : location.substr(location[0] == '/' ? 1 : 0);
        if (!writeReceipt(target.path, component.identifier,
                          {component.version, printed, now, component.paths})) {
            failed("Cannot write the receipt of " + component.identifier);
        }
    }
}

void install(const Request& request, const Switches& switches)
{
    // 1. Unpack everything aside, so that a damaged package changes nothing.
    const Sandbox sandbox;
    const std::vector<Component> components = unpackPackage(request, sandbox.path());
    // 2. Scripts before see the old files and the old receipts, scripts after the new files and the old
    // receipts.
    runScripts("preinstall", components, request);
    placePayloads(components, request.target, switches);
    runScripts("postinstall", components, request);
    // 3. Only now the receipts, all of them.
    if (switches.receipts)
        writeReceipts(components, request.target);
}

} // namespace

int main(int count, char** arguments)
{
    try {
        ::umask(022);
        const Request request = readRequest(count, arguments);
        const Switches switches = readSwitches();
        std::printf("installer: Package name is %s\ninstaller: Installing at base path %s\n",
                    std::filesystem::path(request.package).stem().c_str(), request.target.path.c_str());
        std::fflush(stdout);
        install(request, switches);
        std::puts("installer: The install was successful.");
        return 0;
    } catch (const Failure& failure) {
        std::fprintf(stderr, "installer: %s\n", failure.what());
        return failure.status;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "installer: %s\n", error.what());
        return 1;
    }
}
