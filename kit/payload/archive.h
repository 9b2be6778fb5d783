#pragma once

#include "fs/owned_fd.h"

#include <archive.h>
#include <archive_entry.h>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace maintenance::kit {

/// Reads one archive from its first entry to its last, in the order in which they stand in it.
class ArchiveReader {
public:
    /// Opens a flat package or product archive (xar).
    ///
    /// throws  Failure (NoInput) when the file cannot be read; Failure (Findings) when it is no such archive
    static ArchiveReader openPackage(const std::string& file);

    /// Opens the payload (cpio, compressed in any usual way) that is the current entry of `outer`, which must
    /// live longer than the result.
    static ArchiveReader openPayload(ArchiveReader& outer, const std::string& place);

    /// Goes on to the next entry; a null pointer at the end. The entry belongs to the reader and lasts until
    /// the next call. Throws Failure (Findings) when the archive is damaged.
    archive_entry* next();

    /// Hands the content of the current entry over, piece by piece. Throws Failure (Findings) when the
    /// archive is damaged.
    void read(const std::function<void(std::string_view)>& take);

    /// The content of the current entry. Throws Failure (Findings) when it has more than `largest` bytes.
    std::string readAll(std::size_t largest);

    /// How many bytes of the file have been read.
    std::uint64_t position() const;

private:
    struct Feed;

    explicit ArchiveReader(std::string place);
    [[noreturn]] void refuse() const;
    std::size_t readSome(char* buffer, std::size_t size);
    static la_ssize_t feedPayload(archive* inner, void* feed, const void** buffer);

    std::string place_;
    /// The file of a package; a payload has none of its own.
    OwnedFd file_;
    /// An entry has been found.
    bool begun_ = false;
    std::unique_ptr<archive, int (*)(archive*)> archive_;
    std::unique_ptr<Feed, void (*)(Feed*)> feed_;
};

} // namespace maintenance::kit
