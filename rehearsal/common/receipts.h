#pragma once

#include <optional>
#include <string>
#include <vector>

/// What the database of a volume says about one installed package.
struct Receipt {
    std::string version;            ///< as in the package, such as "1.4.2"
    std::string location;           ///< install location relative to the volume, as printed; may be empty
    std::string installTime;        ///< seconds since 1970 in decimal digits
    std::vector<std::string> paths; ///< relative to volume plus location, in the order of a listing
};

/// Returns the directory that holds the receipts of `volume`, which is "/" or an account's home.
std::string receiptDirectory(const std::string& volume);

/// Returns the path of the receipt of `identifier` on `volume`, whether it exists or not.
std::string receiptPath(const std::string& volume, const std::string& identifier);

/// Returns the identifiers that have a receipt on `volume`, in byte order. A directory that does not exist
/// holds none; nothing is returned, with errno set, if it cannot be read.
std::optional<std::vector<std::string>> listReceipts(const std::string& volume);

/// Returns the receipt of `identifier` on `volume`, or nothing with errno set: ENOENT if there is none,
/// EBADMSG if a line of the file has an unknown name.
std::optional<Receipt> readReceipt(const std::string& volume, const std::string& identifier);

/// Writes the receipt of `identifier` on `volume` and replaces an older one at once; the directory must
/// exist. Returns false with errno set when that fails; a file named after it with ".new" added may remain
/// then.
bool writeReceipt(const std::string& volume, const std::string& identifier, const Receipt& receipt);
