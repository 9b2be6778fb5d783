#include "kit/payload/product_list.h"

#include "kit/report/json.h"
#include "kit/report/printable.h"
#include "kit/text/words.h"
#include "validate/identifiers.h"
#include "validate/product_catalogue.h"

#include <algorithm>
#include <initializer_list>
#include <map>

namespace maintenance::kit {

namespace {

constexpr const char* schema = "tamarind.pelican.product-list.v1";
constexpr const char* shape =
    R"(a product list reads {"schema": "tamarind.pelican.product-list.v1", "sku": "...", "packageRevision": 1, )"
    R"("products": [{"id": "...", "version": "...", "bundles": ["TP ..."]}]})";

/// Reads values out of a list and notes what is wrong with them.
class ListReader {
public:
    ListReader(std::string place, FindingList& findings) : place_(std::move(place)), findings_(findings) {}

    void note(const std::string& text, const std::string& rule, const std::string& advice = shape)
    {
        findings_.push_back({Finding::Severity::Error, place_, 0, text, rule, {}, advice});
    }

    /// Notes members that do not belong into an object.
    void requireMembers(const Json& object, const std::string& where,
                        std::initializer_list<std::string_view> known)
    {
        for (const auto& item : object.items())
            if (std::find(known.begin(), known.end(), item.key()) == known.end())
                note(item.key(), where + " has no such member");
    }

    std::string text(const Json& object, const char* member, const std::string& where)
    {
        const auto found = object.find(member);
        if (found != object.end() && found->is_string())
            return found->get<std::string>();
        note(member, where + " needs this member, a text");
        return {};
    }

    /// A text that passes a predicate of the tool.
    std::string text(const Json& object, const char* member, const std::string& where,
                     bool (*allowed)(std::string_view), const char* rule)
    {
        std::string value = text(object, member, where);
        if (!value.empty() && !allowed(value))
            note(value, std::string(member) + " of " + where + ": " + rule);
        return value;
    }

private:
    std::string place_;
    FindingList& findings_;
};

std::string readRevision(ListReader& reader, const Json& list)
{
    const auto found = list.find("packageRevision");
    if (found == list.end() || !found->is_number_unsigned()) {
        reader.note("packageRevision", "the list needs this member, a number");
        return {};
    }
    std::string revision = std::to_string(found->get<std::uint64_t>());
    if (!isRevision(revision))
        reader.note(revision, std::string("packageRevision: ") + revisionRule);
    return revision;
}

bool hasBundleSuffix(std::string_view name)
{
    return name.ends_with(".vst3") || name.ends_with(".component");
}

std::string withoutSuffix(const std::string& name) { return name.substr(0, name.rfind('.')); }

std::vector<std::string> readBundles(ListReader& reader, const Json& product, const std::string& where)
{
    std::vector<std::string> bundles;
    const auto found = product.find("bundles");
    if (found == product.end())
        return bundles;
    if (!found->is_array() || found->empty())
        reader.note("bundles", where + " needs a list of bundle names here, or nothing");
    else
        for (const Json& name : *found)
            if (name.is_string() && hasBundleSuffix(name.get<std::string>()))
                reader.note(name.get<std::string>(), "a bundle stands here without its suffix",
                            "write " + Json(withoutSuffix(name.get<std::string>())).dump());
            else if (name.is_string() && isProductName(name.get<std::string>()))
                bundles.push_back(name.get<std::string>());
            else
                reader.note(name.is_string() ? name.get<std::string>() : name.dump(),
                            "a bundle is called \"TP \" and a name of letters, digits, blanks and . _ -, or "
                            "is one of "
                            "the older products'",
                            "write the bundle's name without .vst3 and .component");
    return bundles;
}

ListedProduct readProduct(ListReader& reader, const Json& object, const std::string& where)
{
    reader.requireMembers(object, where, {"id", "version", "bundles"});
    ListedProduct product{reader.text(object, "id", where, safeId, idRule),
                          reader.text(object, "version", where, safeVersion, versionRule),
                          readBundles(reader, object, where)};
    if (product.id == commonProduct)
        reader.note(product.id, "no product can be called like the shared package",
                    "choose another identifier");
    if (safeVersion(product.version) && hasHugeNumber(product.version))
        reader.note(product.version, "a number of a version must be below 18446744073709551616",
                    "choose another version");
    return product;
}

void requireDistinct(ListReader& reader, const std::vector<ListedProduct>& products)
{
    std::map<std::string, std::string> owners;
    for (std::size_t i = 0; i < products.size(); ++i) {
        if (i > 0 && products[i].id == products[i - 1].id)
            reader.note(products[i].id, "the product is there twice", "list it once");
        for (const std::string& bundle : products[i].bundles)
            if (!owners.emplace(bundle, products[i].id).second)
                reader.note(bundle, "the bundle is there twice", "list it with one product, once");
    }
}

void readProducts(ListReader& reader, const Json& list, ProductList& result)
{
    const auto found = list.find("products");
    if (found == list.end() || !found->is_array() || found->empty()) {
        reader.note("products", "the list needs this member, a list with at least one product");
        return;
    }
    std::size_t position = 0;
    for (const Json& object : *found) {
        const std::string where = "product " + std::to_string(++position);
        if (object.is_object())
            result.products.push_back(readProduct(reader, object, where));
        else
            reader.note(object.dump(), where + " is no object");
    }
    std::stable_sort(result.products.begin(), result.products.end(),
                     [](const ListedProduct& one, const ListedProduct& other) { return one.id < other.id; });
    requireDistinct(reader, result.products);
}

} // namespace

ProductList readProductList(std::string_view text, const std::string& place, FindingList& findings)
{
    const Json list = parseJson(text, place, shape);
    ListReader reader(place, findings);
    ProductList result;
    if (!list.is_object()) {
        reader.note(list.dump(-1, ' ', true, Json::error_handler_t::replace), "a product list is one object");
        return result;
    }
    reader.requireMembers(list, "the list", {"schema", "sku", "packageRevision", "products"});
    if (const std::string named = reader.text(list, "schema", "the list");
        list.contains("schema") && list["schema"].is_string() && named != schema)
        reader.note("schema", std::string("the schema is \"") + schema + "\"");
    result.sku = reader.text(list, "sku", "the list", safeId, idRule);
    result.packageRevision = readRevision(reader, list);
    readProducts(reader, list, result);
    return result;
}

} // namespace maintenance::kit
