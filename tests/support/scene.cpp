#include "support/scene.h"

#include "fs/sha256.h"

#include <algorithm>
#include <set>
#include <stdexcept>

namespace maintenance::rehearsed {

namespace {

namespace fs = std::filesystem;

constexpr const char* supportPath = "Library/Application Support/Tamarind Pelican";
constexpr mode_t installedMode = 0644;

/// The paths that a receipt lists: the files and every directory above them, depth first.
std::vector<std::string> receiptPaths(const Package& package)
{
    std::set<std::string> paths;
    for (const auto& [path, content] : package.files)
        for (fs::path part = path; !part.empty(); part = part.parent_path())
            paths.insert(part.native());
    return {paths.begin(), paths.end()};
}

std::string targetFields(const Package& package, const std::string& path)
{
    return package.product + "\t" + package.id + "\t" + package.version + "\t" + path + "\t" +
           sha256OfText(package.files.at(path));
}

std::string productFields(const Plugin& product, const std::string& recorded)
{
    return product.id + "\t" + recorded + "\t" + product.version;
}

Package pluginPackage(const std::string& id, const std::string& version, const std::string& kind)
{
    const auto path = kind == "vst3" ? vst3Path : auPath;
    Package package{"com.tamarindpelican.pkg." + id + "." + kind, version, id, {}};
    package.files[path(id, "Contents/MacOS/plugin")] = id + " " + kind + " code " + version + "\n";
    package.files[path(id, "Contents/Resources/art.txt")] = id + " " + kind + " art\n";
    return package;
}

} // namespace

fs::path rootOf(const std::string& scope) { return scope == "user" ? playerHome : "/"; }

uid_t ownerOf(const std::string& scope) { return scope == "user" ? playerUid : rootUid; }

std::string oppositeOf(const std::string& scope) { return scope == "user" ? "system" : "user"; }

std::string metadataFileOf(const std::string& scope)
{
    return "file " + std::to_string(ownerOf(scope)) + " 0600";
}

std::string directoryOf(const std::string& scope)
{
    return "dir " + std::to_string(ownerOf(scope)) + " 0755";
}

fs::path supportOf(const std::string& scope) { return rootOf(scope) / supportPath; }

fs::path maintenanceOf(const std::string& scope) { return supportOf(scope) / "Maintenance"; }

fs::path inboxOf(const std::string& scope) { return maintenanceOf(scope) / "Inbox"; }

fs::path descriptorOf(const std::string& scope, const std::string& id)
{
    return inboxOf(scope) / (id + ".tpmt");
}

fs::path lockOf(const std::string& scope) { return maintenanceOf(scope) / "maintenance.lock"; }

fs::path leaseOf(const std::string& scope) { return maintenanceOf(scope) / "ActiveTransaction"; }

fs::path pendingOf(const std::string& scope) { return maintenanceOf(scope) / "PendingInstall"; }

fs::path indexOf(const std::string& scope) { return supportOf(scope) / "installed-products.json"; }

fs::path recordOf(const std::string& scope, const std::string& product)
{
    return maintenanceOf(scope) / "Products" / (product + ".record");
}

fs::path transactionOf(const std::string& scope, const std::string& id)
{
    return maintenanceOf(scope) / "Transactions" / id;
}

fs::path completedOf(const std::string& scope, const std::string& id)
{
    return maintenanceOf(scope) / "Completed" / (id + ".record");
}

fs::path receiptOf(const std::string& scope, const std::string& packageId)
{
    const fs::path database =
        scope == "user" ? fs::path(playerHome) / "Library/Receipts" : "/var/db/receipts";
    return database / (packageId + ".receipt");
}

void makeLayout(const std::string& scope)
{
    for (const char* name : {"Inbox", "Transactions", "Products", "NativeReceipts", "Completed"})
        makeDirectories(maintenanceOf(scope) / name, {ownerOf(scope), 0755});
}

Package commonPackage(const std::string& revision)
{
    const std::string support = supportPath;
    return {"com.tamarindpelican.pkg.common",
            revision,
            "common",
            {{support + "/TamarindPelicanMaintenance", "maintenance " + revision + "\n"},
             {support + "/TamarindPelicanUpdater", "updater " + revision + "\n"}}};
}

std::string vst3Path(const std::string& product, const std::string& path)
{
    return "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/TP " + product + ".vst3/" + path;
}

std::string auPath(const std::string& product, const std::string& path)
{
    return "Library/Audio/Plug-Ins/Components/TP " + product + ".component/" + path;
}

Plugin plugin(const std::string& id, const std::string& version)
{
    return {id, version, pluginPackage(id, version, "vst3"), pluginPackage(id, version, "au")};
}

Plugin& Plugin::withVst3File(const std::string& path, const std::string& content)
{
    vst3.files[vst3Path(id, path)] = content;
    return *this;
}

Plugin& Plugin::withAuFile(const std::string& path, const std::string& content)
{
    au.files[auPath(id, path)] = content;
    return *this;
}

std::vector<std::string> Plugin::paths() const
{
    std::vector<std::string> all;
    for (const Package* package : {&vst3, &au})
        for (const auto& [path, content] : package->files)
            all.push_back(path);
    std::sort(all.begin(), all.end());
    return all;
}

void placeFiles(const std::string& scope, const Package& package)
{
    for (const auto& [path, content] : package.files)
        writeFile(rootOf(scope) / path, content, {ownerOf(scope), installedMode});
}

void placeFiles(const std::string& scope, const Plugin& product)
{
    placeFiles(scope, product.vst3);
    placeFiles(scope, product.au);
}

void removeFiles(const std::string& scope, const Package& package)
{
    for (const auto& [path, content] : package.files)
        removeAll(rootOf(scope) / path);
}

void removeFiles(const std::string& scope, const Plugin& product)
{
    removeFiles(scope, product.vst3);
    removeFiles(scope, product.au);
}

void install(const std::string& scope, const Package& package)
{
    placeFiles(scope, package);
    registerPackage(scope, package);
}

void install(const std::string& scope, const Plugin& product)
{
    install(scope, product.vst3);
    install(scope, product.au);
}

void registerPackage(const std::string& scope, const Package& package, const std::string& location)
{
    writeReceipt(scope, package.id, package.version, receiptPaths(package), location);
}

void registerPackage(const std::string& scope, const Plugin& product)
{
    registerPackage(scope, product.vst3);
    registerPackage(scope, product.au);
}

void unregister(const std::string& scope, const std::string& packageId)
{
    removeAll(receiptOf(scope, packageId));
}

bool isRegistered(const std::string& scope, const std::string& packageId)
{
    return isThere(receiptOf(scope, packageId));
}

void writeReceipt(const std::string& scope, const std::string& packageId, const std::string& version,
                  const std::vector<std::string>& paths, const std::string& location)
{
    std::string text = "version=" + version + "\nlocation=" + location + "\ninstall-time=1688011857\n";
    for (const std::string& path : paths)
        text += "path=" + path + "\n";
    writeFile(receiptOf(scope, packageId), text, {ownerOf(scope), installedMode});
}

Work& Work::from(const std::string& source)
{
    source_ = source;
    return *this;
}

Work& Work::deciding(const std::string& decision)
{
    decision_ = decision;
    return *this;
}

Work& Work::with(const Package& common)
{
    common_ = common;
    return *this;
}

Work& Work::brings(const Plugin& product, const std::string& recorded)
{
    products_.emplace_back(product, recorded);
    return *this;
}

std::string Work::authority() const
{
    return source_ == "system" || target_ == "system" ? "system" : target_;
}

std::vector<std::string> Work::involved() const
{
    if (source_ == "none")
        return {target_};
    return {source_, target_};
}

std::vector<std::string> Work::fileLines() const
{
    std::vector<const Package*> packages;
    for (const auto& [product, recorded] : products_) {
        packages.push_back(&product.vst3);
        packages.push_back(&product.au);
    }
    packages.push_back(&common_);
    std::vector<std::string> lines;
    for (const Package* package : packages)
        for (const auto& [path, content] : package->files)
            lines.push_back(targetFields(*package, path));
    return lines;
}

std::string Work::text() const
{
    std::string text = "schema=tamarind.pelican.macos-maintenance.v2\nsku=studio-bundle\npackageRevision=" +
                       common_.version + "\nsourceScope=" + source_ + "\ntargetScope=" + target_ +
                       "\ndecision=" + decision_ + "\n";
    for (const auto& [product, recorded] : products_)
        text += "product=" + productFields(product, recorded) + "\n";
    for (const std::string& line : fileLines())
        text += "target=" + line + "\n";
    return text;
}

std::string Work::canonical(const std::string& id) const
{
    std::string text = "tamarind.pelican.macos-maintenance.v2\nstudio-bundle\n" + common_.version + "\n" +
                       source_ + "\n" + target_ + "\n" + decision_ + "\n" + id + "\n";
    std::map<std::string, std::string> products;
    for (const auto& [product, recorded] : products_)
        products[product.id] = productFields(product, recorded);
    for (const auto& [product, fields] : products)
        text += "product\t" + fields + "\n";
    std::map<std::string, std::string> files;
    for (const std::string& line : fileLines()) {
        const std::size_t digest = line.rfind('\t');
        const std::size_t path = line.rfind('\t', digest - 1) + 1;
        files[line.substr(path, digest - path)] = line;
    }
    for (const auto& [path, line] : files)
        text += "target\t" + line + "\n";
    return text;
}

std::string Work::prepared(const std::string& id, const std::string& generation) const
{
    return "schema=tamarind.pelican.macos-maintenance.prepared.v1\ntransaction=" + id +
           "\ngeneration=" + generation + "\ndescriptorSha256=" + sha256OfText(text()) +
           "\ncanonicalSha256=" + sha256OfText(canonical(id)) + "\nsourceScope=" + source_ +
           "\ntargetScope=" + target_ + "\n";
}

std::string publish(const Work& work, const std::string& id)
{
    if (work.source() != "none")
        makeLayout(work.source());
    return publishText(work.target(), work.text(), id);
}

std::string publishText(const std::string& scope, const std::string& text, const std::string& id)
{
    makeLayout(scope);
    writeFile(descriptorOf(scope, id), text, {ownerOf(scope), 0600});
    return id;
}

std::string planText(std::vector<Plugin> products, const Package& common, const std::string& sku)
{
    std::sort(products.begin(), products.end(),
              [](const Plugin& one, const Plugin& other) { return one.id < other.id; });
    std::string text = "schema=tamarind.pelican.macos-maintenance-plan.v1\nsku=" + sku +
                       "\npackageRevision=" + common.version + "\n";
    std::vector<const Package*> components;
    for (const Plugin& product : products) {
        text += "product=" + product.id + "\t" + product.version + "\n";
        components.push_back(&product.vst3);
        components.push_back(&product.au);
    }
    components.push_back(&common);
    std::size_t index = 0;
    for (const Package* package : components) {
        const std::string number = std::to_string(index++);
        text += "component=" + number + "\t" + package->product + "\t" + package->id + "\t" +
                package->version + "\n";
        for (const auto& [path, content] : package->files)
            text += "target=" + number + "\t" + path + "\t" + sha256OfText(content) + "\n";
    }
    return text;
}

fs::path placeTool(const std::string& scope, const std::string& plan, uid_t owner)
{
    makeDirectories(supportOf(scope), {ownerOf(scope), 0755});
    const fs::path tool = supportOf(scope) / "TamarindPelicanMaintenance";
    removeAll(tool);
    fs::copy_file(builtTool(), tool);
    setOwner(tool, owner);
    setMode(tool, 0755);
    writeFile(supportOf(scope) / "transaction-plan.tpmp", plan, {owner, installedMode});
    return tool;
}

std::string generationOf(char digit) { return std::string(64, digit); }

std::string fieldOf(const std::string& text, const std::string& key)
{
    const std::string marked = "\n" + text;
    const std::size_t start = marked.find("\n" + key + "=");
    if (start == std::string::npos)
        throw std::runtime_error("no line " + key + " in: " + text);
    const std::size_t value = start + key.size() + 2;
    return marked.substr(value, marked.find('\n', value) - value);
}

} // namespace maintenance::rehearsed
