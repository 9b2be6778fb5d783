#include "kit/payload/archive.h"

#include "kit/report/failure.h"
#include "kit/report/printable.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <system_error>

namespace maintenance::kit {

namespace {

constexpr std::size_t readingChunk = 1U << 18U;
constexpr std::string_view newCompression = "pbzx";

std::string messageOf(archive* reader)
{
    const char* message = ::archive_error_string(reader);
    return message == nullptr ? "it is damaged" : printable(message);
}

} // namespace

/// Where a payload's reader gets its bytes from: the current entry of the archive around it.
struct ArchiveReader::Feed {
    ArchiveReader* outer;
    std::vector<char> buffer;
    /// The first bytes, which tell how the payload is compressed.
    std::string beginning;
};

ArchiveReader::ArchiveReader(std::string place)
    : place_(std::move(place)),
      archive_(::archive_read_new(), ::archive_read_free),
      feed_(nullptr, [](Feed* feed) { delete feed; })
{
    if (!archive_)
        throw std::bad_alloc();
}

ArchiveReader ArchiveReader::openPackage(const std::string& file)
{
    ArchiveReader reader(file);
    reader.file_ = OwnedFd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    const bool known = reader.file_ && ::fstat(reader.file_.get(), &status) == 0;
    if (!known || S_ISDIR(status.st_mode))
        throw Failure(NoInput,
                      printable(file) + " cannot be read: " +
                          (known ? "it is a directory" : std::generic_category().message(errno)),
                      "check the name and the rights");
    ::archive_read_support_format_xar(reader.archive_.get());
    if (::archive_read_open_fd(reader.archive_.get(), reader.file_.get(), readingChunk) != ARCHIVE_OK)
        reader.refuse();
    return reader;
}

ArchiveReader ArchiveReader::openPayload(ArchiveReader& outer, const std::string& place)
{
    ArchiveReader reader(place);
    archive* inner = reader.archive_.get();
    ::archive_read_support_filter_all(inner);
    ::archive_read_support_format_cpio(inner);
    ::archive_read_support_format_empty(inner);
    reader.feed_.reset(new Feed{&outer, std::vector<char>(readingChunk), {}});
    if (::archive_read_open(inner, reader.feed_.get(), nullptr, &ArchiveReader::feedPayload, nullptr) !=
        ARCHIVE_OK)
        reader.refuse();
    return reader;
}

la_ssize_t ArchiveReader::feedPayload(archive* inner, void* feed, const void** buffer)
{
    auto* source = static_cast<Feed*>(feed);
    try {
        const std::size_t count = source->outer->readSome(source->buffer.data(), source->buffer.size());
        if (source->beginning.empty())
            source->beginning.assign(source->buffer.data(), std::min(count, newCompression.size()));
        *buffer = source->buffer.data();
        return static_cast<la_ssize_t>(count);
    } catch (const Failure& failure) {
        ::archive_set_error(inner, EIO, "%s", failure.what());
        return ARCHIVE_FATAL;
    }
}

void ArchiveReader::refuse() const
{
    if (file_ && !begun_)
        throw Failure(Findings, printable(place_) + " is no flat package: " + messageOf(archive_.get()),
                      "name packages made by pkgbuild or productbuild");
    if (feed_ && feed_->beginning == newCompression)
        throw Failure(Findings,
                      printable(place_) + ": the payload is compressed in a way that cannot be read here",
                      "build the package with pkgbuild --compression legacy");
    throw Failure(Findings, printable(place_) + ": " + messageOf(archive_.get()),
                  "build the package again and copy it whole");
}

archive_entry* ArchiveReader::next()
{
    archive_entry* entry = nullptr;
    const int result = ::archive_read_next_header(archive_.get(), &entry);
    if (result == ARCHIVE_EOF)
        return nullptr;
    if (result != ARCHIVE_OK && result != ARCHIVE_WARN)
        refuse();
    begun_ = true;
    return entry;
}

std::size_t ArchiveReader::readSome(char* buffer, std::size_t size)
{
    const la_ssize_t count = ::archive_read_data(archive_.get(), buffer, size);
    if (count < 0)
        refuse();
    return static_cast<std::size_t>(count);
}

void ArchiveReader::read(const std::function<void(std::string_view)>& take)
{
    std::vector<char> chunk(readingChunk);
    while (const std::size_t count = readSome(chunk.data(), chunk.size()))
        take({chunk.data(), count});
}

std::string ArchiveReader::readAll(std::size_t largest)
{
    std::string content;
    read([&](std::string_view piece) {
        content += piece;
        if (content.size() > largest)
            throw Failure(Findings, printable(place_) + ": an entry is larger than " + byteCount(largest),
                          "build the package again");
    });
    return content;
}

std::uint64_t ArchiveReader::position() const
{
    return static_cast<std::uint64_t>(::archive_filter_bytes(archive_.get(), -1));
}

} // namespace maintenance::kit
