#include "kit/cli/commands.h"
#include "kit/machine/scope_view.h"
#include "kit/report/failure.h"
#include "kit/report/printable.h"
#include "kit/report/sheet.h"
#include "platform/stat_times.h"
#include "transaction/transaction_scopes.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>

namespace maintenance::kit {

namespace {

/// A completed transaction.
struct Completion {
    std::string id;
    /// Seconds and nanoseconds of the record's last change.
    timespec time{};
    PreparedState state;
    /// As "heron 1.0.0"; empty when the descriptor is gone or another one by now.
    std::vector<std::string> products;
    bool descriptorKnown = false;
};

/// The time in UTC as ISO 8601, to the second, whatever the time zone and language.
std::string utc(const timespec& time)
{
    struct tm parts = {};
    if (::gmtime_r(&time.tv_sec, &parts) == nullptr)
        return "unknown";
    std::array<char, 64> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return {text.data(), length};
}

/// The descriptor that a completed transaction was bound to, in whichever inbox it lies.
const Descriptor* boundDescriptor(const std::map<std::string, ScopeView>& views, const PreparedState& state)
{
    const auto view = views.find(state.targetScope);
    if (view == views.end())
        return nullptr;
    const auto file = view->second.inbox.find(state.transaction);
    if (file == view->second.inbox.end() || !file->second.descriptor ||
        file->second.descriptor->fileSha256 != state.descriptorSha256)
        return nullptr;
    return &*file->second.descriptor;
}

std::vector<Completion> completionsOf(const std::map<std::string, ScopeView>& views, const ScopeView& view)
{
    std::vector<Completion> completions;
    for (const auto& [id, record] : view.completed) {
        if (!record.state)
            continue;
        Completion completion{id, modificationTime(record.file.status), *record.state, {}, false};
        if (const Descriptor* descriptor = boundDescriptor(views, *record.state)) {
            completion.descriptorKnown = true;
            for (const Product& product : descriptor->products)
                completion.products.push_back(product.id + " " + product.targetVersion);
        }
        completions.push_back(std::move(completion));
    }
    std::stable_sort(completions.begin(), completions.end(),
                     [](const Completion& one, const Completion& other) {
                         return std::pair(one.time.tv_sec, one.time.tv_nsec) <
                                std::pair(other.time.tv_sec, other.time.tv_nsec);
                     });
    return completions;
}

Json completionJson(const Completion& completion)
{
    return {{"id", completion.id},
            {"recordedAt", utc(completion.time)},
            {"sourceScope", printable(completion.state.sourceScope)},
            {"targetScope", printable(completion.state.targetScope)},
            {"descriptorKnown", completion.descriptorKnown},
            {"products", completion.products},
            {"generation", completion.state.generation},
            {"descriptorSha256", completion.state.descriptorSha256}};
}

std::string completionText(const Completion& completion, const Paint& paint)
{
    const std::string source = printable(completion.state.sourceScope);
    const std::string target = printable(completion.state.targetScope);
    std::string text = paint.faint(utc(completion.time)) + "  " + paint.strong(completion.id) + "\n";
    text += "    " + (source == "none" ? "in the " + target + " scope" : "from " + source + " to " + target);
    for (const std::string& product : completion.products)
        text += ", " + product;
    return text + (completion.descriptorKnown ? "" : ", descriptor not available") + "\n";
}

Json historyJson(const ScopeView& view, const std::vector<Completion>& completions)
{
    Json json{
        {"scope", view.scope}, {"complete", view.sightings.unreadable.empty()}, {"completed", Json::array()}};
    for (const Completion& completion : completions)
        json["completed"].push_back(completionJson(completion));
    json["unreadable"] = Json::array();
    for (const std::string& path : view.sightings.unreadable)
        json["unreadable"].push_back(printable(path, 4096));
    return json;
}

std::string historyText(const ScopeView& view, const std::vector<Completion>& completions, const Paint& paint)
{
    std::string text;
    for (const Completion& completion : completions)
        text += completionText(completion, paint);
    for (const std::string& path : view.sightings.unreadable)
        text += paint.doubtful("may not be read by this account: ") + printable(path, 4096) + "\n";
    return text + counted(completions.size(), "completed transaction") + " in the " + view.scope + " scope\n";
}

} // namespace

Answer runHistory(const HistoryOptions& options, bool json, const Terminal& terminal)
{
    std::map<std::string, ScopeView> views;
    for (const char* scope : {"user", "system"})
        views.emplace(scope, readScope(scope));
    const ScopeView& view = views.at(options.scope);
    const std::vector<Completion> completions = completionsOf(views, view);
    const FindingList damaged = [&] {
        FindingList findings;
        for (const Finding& finding : view.sightings.findings)
            if (finding.place.find("/Completed") != std::string::npos)
                findings.push_back(finding);
        return findings;
    }();
    const int status = !damaged.empty()                    ? Findings
                       : view.sightings.unreadable.empty() ? AllRight
                                                           : NotPermitted;
    return {status,
            json ? jsonText(historyJson(view, completions)) : historyText(view, completions, terminal.out),
            findingsText(damaged, terminal.err)};
}

} // namespace maintenance::kit
