#include "kit.h"
#include "kit/payload/assembly.h"
#include "kit/text/descriptor_diagnosis.h"
#include "kit/text/plan_diagnosis.h"
#include "kit/text/plan_text.h"
#include "mutations.h"
#include "plan/begin_install.h"
#include "support/ending.h"

/// What the kit and the privileged tool say of the same text, on texts of every kind.
namespace maintenance::rehearsed {
namespace {

const std::string installId = "install-" + std::string(64, '0');

/// What the tool's own code says: its message, or nothing when it accepts.
std::string toolOnPlan(const std::string& text)
{
    const Ending ending = endingOf([&] {
        const Descriptor made = materializeDescriptor(parsePlanText(text), "user", installId);
        if (endingOf([&] { parseDescriptorText(descriptorText(made), "user", installId); }).kind !=
            "returned")
            throw Invalid("materialized maintenance descriptor is unsafe");
    });
    return ending.text;
}

std::string toolOnDescriptor(const std::string& text, const std::string& scope)
{
    return endingOf([&] { parseDescriptorText(text, scope, "some-id"); }).text;
}

std::set<std::string> errorMessages(const kit::FindingList& findings)
{
    std::set<std::string> messages;
    for (const kit::Finding& finding : findings)
        if (finding.severity == kit::Finding::Severity::Error)
            messages.insert(finding.message);
    return messages;
}

/// How many texts the tool accepted and refused.
struct Tally {
    int accepted = 0;
    int refused = 0;
    std::map<std::string, int> messages;
};

/// Requires the kit to find an error exactly where the tool refuses, and to know the tool's message.
void compare(const std::string& text, const std::string& tool, const kit::FindingList& findings, Tally& tally)
{
    const std::set<std::string> messages = errorMessages(findings);
    if (tool.empty()) {
        ++tally.accepted;
        EXPECT_EQ(messages, std::set<std::string>()) << text;
    } else {
        ++tally.refused;
        ++tally.messages[tool];
        EXPECT_TRUE(messages.contains(tool)) << tool << "\n" << text;
    }
}

TEST(KitAgreement, HoldsForEightThousandMutatedPlans)
{
    Mutator mutator(1);
    const std::vector<std::string> plans = rightPlans();
    Tally tally;
    // Many texts come out unchanged, and the tool asks the package database about each that it takes.
    std::map<std::string, std::string> answers;
    for (int i = 0; i < 8000 && !HasFailure(); ++i) {
        const std::string text = mutator.mutate(mutator.pick(plans));
        const auto [answer, isNew] = answers.try_emplace(text);
        if (isNew)
            answer->second = toolOnPlan(text);
        compare(text, answer->second, kit::diagnosePlan(text, "plan"), tally);
    }
    EXPECT_GT(tally.accepted, 500);
    EXPECT_GT(tally.refused, 4000);
    EXPECT_GE(tally.messages.size(), 16U) << ::testing::PrintToString(tally.messages);
}

TEST(KitAgreement, HoldsForEightThousandMutatedDescriptors)
{
    Mutator mutator(2);
    Tally tally;
    for (int i = 0; i < 8000 && !HasFailure(); ++i) {
        const std::string scope = i % 2 == 0 ? "user" : "system";
        const std::string text = mutator.mutate(mutator.pick(rightDescriptors(scope)));
        compare(text, toolOnDescriptor(text, scope), kit::diagnoseDescriptor(text, "descriptor", scope),
                tally);
    }
    EXPECT_GT(tally.accepted, 500);
    EXPECT_GT(tally.refused, 4000);
    EXPECT_GE(tally.messages.size(), 16U) << ::testing::PrintToString(tally.messages);
}

/// What the kit's program says of a file.
std::set<std::string> kitsErrors(const std::string& file, int& status)
{
    const Outcome outcome = kit({"check", "--json", file});
    status = outcome.status;
    std::set<std::string> messages;
    const auto answer = nlohmann::json::parse(outcome.out);
    for (const auto& finding : answer.at("findings"))
        if (finding.at("severity") == "error")
            messages.insert(finding.value("toolMessage", ""));
    return messages;
}

TEST(KitAgreement, HoldsBetweenTheTwoProgramsOnMutatedPlans)
{
    Mutator mutator(3);
    const std::vector<std::string> plans = rightPlans();
    int accepted = 0;
    for (int i = 0; i < 60 && !HasFailure(); ++i) {
        Surroundings placed;
        const std::string text = mutator.mutate(mutator.pick(plans));
        placed.tool = placeTool("system", text);
        const Outcome tool = run({"begin-install", "user"}, placed);
        int status = 0;
        const auto messages = kitsErrors(supportOf("system") / "transaction-plan.tpmp", status);
        EXPECT_EQ(status, tool.status) << tool << text;
        accepted += tool.status == 0 ? 1 : 0;
        if (tool.status != 0) {
            EXPECT_TRUE(messages.contains(tool.err.substr(0, tool.err.size() - 1))) << tool << text;
        }
        removeAll(maintenanceOf("user"));
    }
    EXPECT_GT(accepted, 5);
}

TEST(KitAgreement, HoldsBetweenTheTwoProgramsOnMutatedDescriptors)
{
    Mutator mutator(4);
    int accepted = 0;
    for (int i = 0; i < 60 && !HasFailure(); ++i) {
        const std::string scope = i % 2 == 0 ? "user" : "system";
        const std::string text = mutator.mutate(mutator.pick(rightDescriptors(scope)));
        publishText(scope, text, "some-id");
        makeLayout(oppositeOf(scope));
        const Outcome tool = run({"inspect", scope, "some-id"});
        const Outcome check = kit({"check", "--json", "--scope", scope, descriptorOf(scope, "some-id")});
        EXPECT_EQ(check.status, tool.status) << tool << text;
        accepted += tool.status == 0 ? 1 : 0;
        if (tool.status != 0) {
            EXPECT_TRUE(holds(check.out, tool.err.substr(0, tool.err.size() - 1))) << tool << text;
        }
    }
    EXPECT_GT(accepted, 5);
}

/// A payload that some maker could have staged, right or not.
kit::Payload randomPayload(Mutator& mutator)
{
    kit::Payload payload;
    const std::vector<std::string> names = {"alpha", "beta", "gamma"};
    const std::vector<std::string> files = {"Contents/Info.plist", "Contents/a", "Contents/a/b",
                                            "Contents/a-b", "x"};
    std::set<std::string> paths = {"Library/Application Support/Tamarind Pelican/TamarindPelicanMaintenance",
                                   "Library/Application Support/Tamarind Pelican/TamarindPelicanUpdater"};
    for (std::size_t count = 1 + mutator.below(12); count > 0; --count) {
        paths.insert(vst3Path(mutator.pick(names), mutator.pick(files)));
        paths.insert(auPath(mutator.pick(names), mutator.pick(files)));
    }
    for (const std::string& path : paths)
        payload.files.push_back({path, std::string(64, mutator.pick<char>({'0', '7', 'f'})), {}});
    return payload;
}

TEST(KitAgreement, HoldsForWhateverPlanTheKitAssembles)
{
    Mutator mutator(5);
    int assembled = 0;
    for (int i = 0; i < 2000; ++i) {
        kit::ProductList list{"studio-bundle", "7", {}};
        for (const char* id : {"alpha", "beta", "gamma"})
            if (mutator.below(2) == 0)
                list.products.push_back({id, "1." + std::to_string(i), {std::string("TP ") + id}});
        kit::FindingList findings;
        const Plan plan = kit::assemblePlan(list, randomPayload(mutator), findings);
        if (list.products.empty() || !findings.empty())
            continue;
        ++assembled;
        const std::string text = kit::planText(plan);
        EXPECT_EQ(endingOf([&] { return kit::planText(parsePlanText(text)); }), returned(text));
        EXPECT_FALSE(kit::hasErrors(kit::diagnosePlan(text, "plan"))) << text;
    }
    EXPECT_GT(assembled, 100);
}

} // namespace
} // namespace maintenance::rehearsed
