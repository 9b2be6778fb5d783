#pragma once

#include "support/scene.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

/// Running the packaging kit and furnishing what it works on.
namespace maintenance::rehearsed {

inline const std::string kitProgram = MAINTENANCE_KIT;
/// Where trees, lists and packages are made; no scope lies below it.
inline const std::string workshop = "/var/workshop";

inline Outcome kit(const Arguments& arguments, const Surroundings& surroundings = {})
{
    Arguments words = {kitProgram};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return runCommand(words, surroundings);
}

/// The kit's JSON answer.
inline nlohmann::ordered_json kitJson(Arguments arguments, const Surroundings& surroundings = {})
{
    arguments.emplace_back("--json");
    return nlohmann::ordered_json::parse(kit(arguments, surroundings).out);
}

inline std::string inWorkshop(const std::string& name) { return workshop + "/" + name; }

/// Puts the files of packages into a tree that is laid out like a scope root.
inline std::string stage(const std::vector<Package>& packages, const std::string& tree = "stage")
{
    for (const Package& package : packages)
        for (const auto& [path, content] : package.files)
            writeFile(inWorkshop(tree) + "/" + path, content);
    return inWorkshop(tree);
}

inline std::string stage(const Plugin& product, const Package& common = commonPackage(),
                         const std::string& tree = "stage")
{
    return stage({product.vst3, product.au, common}, tree);
}

/// Writes the product list of an installation as its maker would.
inline std::string writeList(const std::vector<Plugin>& products, const std::string& name = "products.json")
{
    nlohmann::json list{{"schema", "tamarind.pelican.product-list.v1"},
                        {"sku", "studio-bundle"},
                        {"packageRevision", 7},
                        {"products", nlohmann::json::array()}};
    for (const Plugin& product : products)
        list["products"].push_back(
            {{"id", product.id}, {"version", product.version}, {"bundles", {"TP " + product.id}}});
    writeFile(inWorkshop(name), list.dump());
    return inWorkshop(name);
}

/// The rules of the findings in a JSON answer, each with its place where that is asked for.
inline std::vector<std::string> rulesOf(const nlohmann::ordered_json& answer)
{
    std::vector<std::string> rules;
    for (const auto& finding : answer.at("findings"))
        rules.push_back(finding.at("rule"));
    return rules;
}

/// The tool's messages that the findings of a JSON answer name.
inline std::set<std::string> messagesOf(const nlohmann::ordered_json& answer)
{
    std::set<std::string> messages;
    for (const auto& finding : answer.at("findings"))
        if (finding.contains("toolMessage"))
            messages.insert(finding.at("toolMessage"));
    return messages;
}

/// Tells whether `text` holds `part`.
inline bool holds(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

/// Puts a stand-in for sudo where a shell finds it, for root's use.
inline void placeSudo()
{
    writeFile("/usr/bin/sudo", "#!/bin/sh\n"
                               "[ \"$1\" = -u ] || exec \"$@\"\n"
                               "account=${2#?}\n"
                               "shift 2\n"
                               "exec setpriv --reuid \"$account\" --regid 20 --clear-groups \"$@\"\n");
    setMode("/usr/bin/sudo", 0755);
}

/// Runs the command line of a way out as a shell would.
inline Outcome inShell(const std::string& command) { return runCommand({"/bin/sh", "-c", command}); }

} // namespace maintenance::rehearsed
