#include "common/receipts.h"

#include "common/files.h"
#include "common/text.h"

#include <algorithm>
#include <cstdio>
#include <dirent.h>
#include <memory>

namespace {

constexpr std::string_view suffix = ".receipt";

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

bool takeLine(const std::string& line, Receipt& receipt)
{
    const std::size_t equals = line.find('=');
    const std::string name = line.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : line.substr(equals + 1);
    if (name == "version") {
        receipt.version = value;
    } else if (name == "location") {
        receipt.location = value;
    } else if (name == "install-time") {
        receipt.installTime = value;
    } else if (name == "path") {
        receipt.paths.push_back(value);
    } else {
        return false;
    }
    return true;
}

} // namespace

std::string receiptDirectory(const std::string& volume)
{
    return volume == "/" ? "/var/db/receipts" : volume + "/Library/Receipts";
}

std::string receiptPath(const std::string& volume, const std::string& identifier)
{
    return receiptDirectory(volume) + "/" + identifier + std::string(suffix);
}

std::optional<std::vector<std::string>> listReceipts(const std::string& volume)
{
    const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(receiptDirectory(volume).c_str()));
    std::vector<std::string> identifiers;
    if (!directory) {
        if (errno == ENOENT || errno == ENOTDIR)
            return identifiers;
        return std::nullopt;
    }
    while (const dirent* entry = ::readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (name.size() <= suffix.size() || !name.ends_with(suffix))
            continue;
        identifiers.emplace_back(name.substr(0, name.size() - suffix.size()));
    }
    std::sort(identifiers.begin(), identifiers.end());
    return identifiers;
}

std::optional<Receipt> readReceipt(const std::string& volume, const std::string& identifier)
{
    // An identifier never holds a slash; one that does must not lead out of the directory.
    if (identifier.empty() || identifier.find('/') != std::string::npos) {
        errno = ENOENT;
        return std::nullopt;
    }
    const std::optional<std::string> content = readFile(receiptPath(volume, identifier));
    if (!content)
        return std::nullopt;
    Receipt receipt;
    for (const std::string& line : lines(*content)) {
        if (takeLine(line, receipt))
            continue;
        errno = EBADMSG;
        return std::nullopt;
    }
    return receipt;
}

bool writeReceipt(const std::string& volume, const std::string& identifier, const Receipt& receipt)
{
    std::string content = "version=" + receipt.version + "\nlocation=" + receipt.location +
                          "\ninstall-time=" + receipt.installTime + "\n";
    for (const std::string& path : receipt.paths) {
        content += "path=" + path + "\n";
    }
    const std::string path = receiptPath(volume, identifier);
    const std::string fresh = path + ".new";
    return writeFile(fresh, content, 0644) && std::rename(fresh.c_str(), path.c_str()) == 0;
}
