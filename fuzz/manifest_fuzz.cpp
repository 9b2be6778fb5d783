#include "receipts/receipt_snapshot.h"

#include "fuzz/property.h"
#include "validate/identifiers.h"
#include "validate/owned_path.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// Runs in a rehearsal root, where a snapshot's manifest is a real file of the system scope.

namespace maintenance::fuzz {
namespace {

const FixedPlace snapshot = {"system", "Library/Snapshot"};

int openManifest()
{
    if (::mkdir("/Library/Snapshot", 0755) != 0) {
        std::fputs("this target must be started by rehearse\n", stderr);
        std::exit(1);
    }
    return ::open("/Library/Snapshot/manifest", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
}

void writeManifest(std::string_view text)
{
    static const int manifest = openManifest();
    const bool written = ::ftruncate(manifest, 0) == 0 &&
                         ::pwrite(manifest, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
    require(written, "the manifest can be written");
}

void examine(std::string_view text)
{
    writeManifest(text);
    std::map<std::string, std::string> inventory;
    if (accepts([&] { inventory = snapshotInventory(snapshot); }))
        for (const auto& [path, digest] : inventory)
            require(isDigest(digest), "every file has a digest");

    std::vector<SnapshotFile> files;
    if (!accepts([&] { files = snapshotManifestFiles(snapshot); }))
        return;
    for (const SnapshotFile& file : files) {
        require(safeRelative(file.path) == file.path, "a proven manifest lists owned paths");
        require(isDigest(file.sha256) && isSerial(file.serial), "with digest and serial");
        require(inventory.contains(file.path), "an inventory lists every file");
    }
    require(accepts([] { snapshotPackages(snapshot); }), "a proven manifest tells its packages");
}

} // namespace
} // namespace maintenance::fuzz

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    maintenance::fuzz::examine(maintenance::fuzz::textOf(data, size));
    return 0;
}
