#include "receipts/receipt_inventory.h"

#include "fuzz/property.h"
#include "receipts/pkgutil.h"
#include "validate/identifiers.h"
#include "validate/owned_path.h"
#include "validate/text_fields.h"

#include <array>

// The package database answers with the input: three texts, separated by lines of "%%", for the listing,
// every description and every list of files. The first byte of the input chooses the statuses.

namespace maintenance {

namespace {

struct Answers {
    std::array<std::string, 3> texts;
    unsigned status = 0;
};

Answers answers;

Answers answersFrom(std::string_view input)
{
    Answers given;
    if (input.empty())
        return given;
    given.status = static_cast<unsigned char>(input.front());
    input.remove_prefix(1);
    for (std::string& text : given.texts) {
        const std::size_t end = input.find("%%\n");
        text = input.substr(0, end);
        input.remove_prefix(end == std::string_view::npos ? input.size() : end + 3);
    }
    return given;
}

} // namespace

/// Stands in for the product's own, which would start the command.
PkgutilResult pkgutil(const std::vector<std::string>& arguments)
{
    const std::string& request = arguments.at(2);
    if (request == "--pkg-info")
        return {answers.status & 4U ? 1 : 0, answers.texts[1]};
    if (request == "--files")
        return {answers.status & 8U ? 1 : 0, answers.texts[2]};
    const bool silent = request != "--pkgs" && (answers.status & 1U);
    return silent ? PkgutilResult{1, {}} : PkgutilResult{answers.status & 2U ? 1 : 0, answers.texts[0]};
}

namespace fuzz {
namespace {

void requireSound(const ReceiptInventory& inventory)
{
    for (const auto& [id, receipt] : inventory) {
        require(safePackageId(id) && receipt.packageId == id, "a receipt bears its package's name");
        require(safeVersion(receipt.version), "a receipt has a version");
        require(!receipt.files.empty(), "a receipt has files");
        std::string text = "pkgutil=" + id + "\nversion=" + receipt.version + "\n";
        for (const ReceiptFile& file : receipt.files) {
            require(safeRelative(file.path) == file.path, "a receipt's files are owned paths");
            text += "file=" + file.path + "\n";
        }
        require(receipt.text == text, "a receipt's text tells name, version and files");
    }
}

void examine(std::string_view input)
{
    answers = answersFrom(input);
    ReceiptInventory inventory;
    if (accepts([&] { inventory = pkgutilReceipts("system", false); }))
        requireSound(inventory);
}

} // namespace
} // namespace fuzz
} // namespace maintenance

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    maintenance::fuzz::examine(maintenance::fuzz::textOf(data, size));
    return 0;
}
