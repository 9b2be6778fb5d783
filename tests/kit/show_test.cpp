#include "kit.h"

#include "fs/sha256.h"

namespace maintenance::rehearsed {
namespace {

const std::string file = inWorkshop("file");

Outcome show(const std::string& text)
{
    writeFile(file, text);
    return kit({"show", file});
}

nlohmann::ordered_json showJson(const std::string& text, const std::string& path = file)
{
    writeFile(path, text);
    return kitJson({"show", path});
}

const std::string digits = generationOf('a');

TEST(KitShow, APlan)
{
    const std::string text = planText({plugin("alpha", "1.0")});
    const auto json = showJson(text);
    EXPECT_EQ(json.at("kind"), "plan");
    EXPECT_EQ(json.at("sku"), "studio-bundle");
    EXPECT_EQ(json.at("sha256"), systemSha256(text));
    EXPECT_EQ(json.at("products").dump(), R"([{"id":"alpha","version":"1.0"}])");
    EXPECT_EQ(json.at("components").size(), 3U);
    EXPECT_EQ(json.at("components")[2].at("targets").size(), 2U);
    const Outcome people = show(text);
    EXPECT_EQ(people.status, 0);
    EXPECT_TRUE(people.out.starts_with("transaction plan  studio-bundle\n")) << people;
    for (const std::string& path : plugin("alpha", "1.0").paths())
        EXPECT_TRUE(holds(people.out, "  " + path + "\n"));
}

TEST(KitShow, ADescriptorWithTheDigestsThatATransactionIsBoundTo)
{
    const Work work = Work("system").from("user").deciding("replace").brings(plugin("alpha", "1.0"), "0.9");
    const auto json = showJson(work.text(), inWorkshop("move-1.tpmt"));
    EXPECT_EQ(json.at("kind"), "descriptor");
    EXPECT_EQ(json.at("id"), "move-1");
    EXPECT_EQ(json.at("sourceScope"), "user");
    EXPECT_EQ(json.at("sha256"), systemSha256(work.text()));
    EXPECT_EQ(json.at("canonicalSha256"), systemSha256(work.canonical("move-1")));
    EXPECT_EQ(json.at("files").size(), 6U);
    EXPECT_FALSE(showJson(work.text()).contains("canonicalSha256"));
}

TEST(KitShow, AnAttemptATransactionARecordAndTheIndex)
{
    const auto attempt = showJson(
        "schema=tamarind.pelican.macos-maintenance-attempt.v1\nsku=s\npackageRevision=7\nplanSha256=" +
        digits + "\ndescriptorSha256=" + digits + "\ntransaction=install-1\ntargetScope=user\n");
    EXPECT_EQ(attempt.at("kind"), "attempt");
    EXPECT_EQ(attempt.at("transaction"), "install-1");
    const auto transaction = showJson(Work("user").brings(plugin("alpha", "1")).prepared("move-1", digits));
    EXPECT_EQ(transaction.at("kind"), "transaction");
    EXPECT_EQ(transaction.at("generation"), digits);
    EXPECT_EQ(showJson("product=alpha\nversion=1.0\n").dump(),
              R"({"kind":"product-record","product":"alpha","version":"1.0"})");
    EXPECT_EQ(showJson("{\"products\":[{\"productId\":\"alpha\",\"scope\":\"user\",\"version\":\"2.1\"}],"
                       "\"schema\":\"tamarind.pelican.installed-products.v1\"}\n")
                  .dump(),
              R"({"kind":"index","products":[{"productId":"alpha","scope":"user","version":"2.1"}]})");
}

TEST(KitShow, AManifestAndAReceipt)
{
    const std::string path = vst3Path("alpha");
    const auto manifest =
        showJson(path + "\t" + digits + "\t0\nreceipt\tcom.tamarindpelican.pkg.alpha.vst3\t1.0\t1\n");
    EXPECT_EQ(manifest.at("kind"), "manifest");
    EXPECT_EQ(manifest.at("receipts")[0].at("files")[0].at("path"), path);
    EXPECT_FALSE(manifest.contains("filesWithoutReceipt"));
    const auto receipt =
        showJson("pkgutil=com.tamarindpelican.pkg.alpha.vst3\nversion=1.0\nfile=" + path + "\n");
    EXPECT_EQ(receipt.at("kind"), "receipt");
    EXPECT_EQ(receipt.at("files")[0], path);
}

TEST(KitShow, EveryFileThatTheToolWrites)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", commonPackage());
    install("user", alpha);
    publish(Work("system").from("user").brings(alpha, "1.0"), "move-1");
    makeLayout("user");
    ASSERT_EQ(run({"prepare-move", "system", "move-1"}), succeeded());
    std::map<std::string, int> kinds;
    for (const std::string scope : {"user", "system"})
        for (const auto& entry : std::filesystem::recursive_directory_iterator(maintenanceOf(scope))) {
            const std::string path = entry.path().native();
            if (!entry.is_regular_file() || holds(path, "/files/"))
                continue;
            const Outcome outcome = kit({"show", "--json", path});
            EXPECT_EQ(outcome.status, 0) << path << outcome;
            if (outcome.status == 0)
                ++kinds[nlohmann::json::parse(outcome.out).at("kind")];
        }
    EXPECT_EQ(kinds, (std::map<std::string, int>{{"absence", 6},
                                                 {"descriptor", 1},
                                                 {"lock", 2},
                                                 {"manifest", 2},
                                                 {"receipt", 3},
                                                 {"transaction", 3}}));
}

TEST(KitShow, FilesWithoutAContentByTheirNames)
{
    EXPECT_EQ(showJson("", inWorkshop("maintenance.lock")).dump(), R"({"kind":"lock"})");
    EXPECT_EQ(showJson("", inWorkshop("manifest")).dump(), R"({"kind":"manifest","receipts":[]})");
    EXPECT_TRUE(holds(kit({"show", inWorkshop("manifest")}).out, "manifest of no package"));
    EXPECT_EQ(showJson("absent\n", inWorkshop("0")).dump(), R"({"kind":"absence"})");
    EXPECT_EQ(show("").status, 65);
    EXPECT_EQ(kit({"show", "-k", "absence", inWorkshop("manifest")}).status, 65);
}

TEST(KitShow, RefusesWhatTheToolRefusesAndSaysItsMessage)
{
    const Outcome plan = show("schema=tamarind.pelican.macos-maintenance-plan.v1\n");
    EXPECT_EQ(plan.status, 65);
    EXPECT_TRUE(holds(plan.err, "is no valid plan: embedded transaction plan is incomplete")) << plan;
    EXPECT_TRUE(holds(plan.err, "tpm-kit check " + file)) << plan;
    for (const std::string& text :
         {std::string("product=a\n"), std::string("{}\n"), std::string("{\"products\":1}"),
          std::string("pkgutil=a\nversion=1\n"), std::string("a\tb\tc\n")})
        EXPECT_EQ(show(text).status, 65) << text;
    const Outcome foreign = show("hello\n");
    EXPECT_EQ(foreign.status, 65);
    EXPECT_TRUE(holds(foreign.err, "is none of the tool's files")) << foreign;
    writeFile(file, "hello\n");
    EXPECT_TRUE(holds(kit({"show", "-k", "attempt", file}).err, "pending installation attempt is invalid"));
}

TEST(KitShow, NeverEndsWithASignal)
{
    for (const std::string& text :
         {std::string(), std::string("{"), std::string(200000, '['),
          "{\"products\":" + std::string(50000, '['), std::string(1U << 20U, '\t'), std::string("schema=")})
        EXPECT_EQ(show(text).status, 65);
}

} // namespace
} // namespace maintenance::rehearsed
