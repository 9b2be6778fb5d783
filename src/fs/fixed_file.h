#pragma once

#include "fs/owned_fd.h"
#include "fs/scope.h"

#include <filesystem>
#include <string>
#include <sys/stat.h>

namespace maintenance {

/// The most that a metadata or input file may hold, in bytes.
inline constexpr off_t largestMetadata = 1048576;

/// A file that was examined by name and is to be used as it was examined.
struct ExaminedFile {
    /// The directory that it lies in, reached without following links.
    OwnedFd directory;
    /// Its name there.
    std::string name;
    /// Its status when it was examined, without following a link.
    struct stat status;
};

/// An open file, with the status that it was examined with.
struct OpenFile {
    OwnedFd descriptor;
    struct stat status;
};

/// Requires a single-linked regular file at `place`, reached through real directories only, and returns it
/// examined. `subject` names the file in messages.
///
/// throws  Invalid subject + " is missing or unsafe"
///         what invokingHome throws
ExaminedFile regular(const FixedPlace& place, const std::string& subject);

/// Requires what `regular` requires, and a metadata file that only the scope's owner can have written: not
/// writable for group or others, rightly owned, at most largestMetadata bytes.
///
/// throws  what `regular` throws
///         Invalid subject + " ownership or mode is unsafe"  also for an oversized file
ExaminedFile validateFixedMetadata(const FixedPlace& place, const std::string& subject);

/// Opens an examined file for reading and proves that it is the one that was examined.
///
/// unreadable  the message when it cannot be opened
/// exchanged   the message when another object is found, or another mode, owner, size or link count
/// throws      Invalid with one of the two
OpenFile openExamined(const ExaminedFile& file, const std::string& unreadable, const std::string& exchanged);

/// Opens the examined metadata file: openExamined with subject + " cannot be read" and subject +
/// " changed during validation".
OpenFile openExamined(const ExaminedFile& file, const std::string& subject);

/// Reads an open file from its current offset to its end and proves that it did not change meanwhile; never
/// reads more than the examined size. No encoding is assumed.
///
/// throws  Invalid subject + " cannot be read"
///         Invalid subject + " changed while being read"  size or times differ from the examined status
std::string readContent(const OpenFile& file, const std::string& subject);

/// Returns the content of a fixed file (a pending attempt, a materialised descriptor), whose whole directory
/// chain must exist and be safe for its scope.
///
/// throws  what openFixedDirectory throws for a directory above it
///         Invalid subject + " is missing or unsafe"       absent, or wrong type, mode, owner, link count,
///                                                         or over largestMetadata bytes
///         Invalid subject + " cannot be opened safely"
///         Invalid subject + " changed during validation"  replaced between examination and opening
///         Invalid subject + " cannot be read", subject + " changed while being read"
std::string readFixedRegular(const FixedPlace& place, const std::string& subject);

/// Returns the content of a metadata file of a scope: validateFixedMetadata, then read.
///
/// throws  what validateFixedMetadata, openExamined and readContent throw
std::string readText(const FixedPlace& place, const std::string& subject);

/// Returns the content of the metadata file at an absolute path below the root of `scope`; otherwise as
/// above.
std::string readText(const std::filesystem::path& path, const std::string& scope, const std::string& subject);

/// Requires that an owned file is reached from its scope root through real directories only and is a
/// single-linked regular file; returns it examined.
///
/// throws  Invalid "owned file is missing"
///         Invalid "owned path contains a symbolic link"
///         Invalid "owned path has a foreign file type"
///         Invalid "cannot read an owned file"  a directory on the way cannot be entered
ExaminedFile safeFile(const FixedPlace& place);

/// Returns the digest text of an owned file.
///
/// throws  what safeFile and sha256 throw
///         Invalid "cannot read an owned file", "owned file changed during validation"
std::string hashOwnedFile(const FixedPlace& place);

/// Tells whether an open file still has the size and times that it was examined with.
bool isUnchanged(const OpenFile& file);

/// Tells whether two statuses are of one file: same device and inode.
bool sameFile(const struct stat& one, const struct stat& other);

} // namespace maintenance
