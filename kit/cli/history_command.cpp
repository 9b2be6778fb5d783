#include "fs/scope.h"
#include "kit/cli/commands.h"
#include "kit/cli/more_rights.h"
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
#include <filesystem>

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

/// Tells whether a record of the books of `authority` is about `scope`: a move is about two.
bool concerns(const PreparedState& state, const std::string& authority, const std::string& scope)
{
    return authority == scope || state.sourceScope == scope || state.targetScope == scope;
}

bool holdsRecord(const std::string& path) { return path.find("/Completed/") != std::string::npos; }

/// What is told of one scope.
struct History {
    std::string scope;
    /// The oldest first.
    std::vector<Completion> completions;
    /// Places that this account may not read and that may hold more.
    std::vector<std::string> hidden;

    std::size_t hiddenRecords() const
    {
        return static_cast<std::size_t>(std::count_if(
            hidden.begin(), hidden.end(), [](const std::string& path) { return holdsRecord(path); }));
    }
    std::string advice() const { return hidden.empty() ? "" : withMoreRights("history " + scope); }
};

/// Tells whether a place that may not be read keeps completed records from this account.
bool hidesRecords(const ScopeView& view, const std::string& path)
{
    const std::string completed =
        (std::filesystem::path(view.root) / maintenanceDirectory / "Completed").native();
    return path.starts_with(completed) || completed.starts_with(path + "/");
}

History historyOf(const std::map<std::string, ScopeView>& views, const std::string& scope)
{
    History history{scope, {}, {}};
    for (const auto& [authority, view] : views)
        for (const std::string& path : view.sightings.unreadable)
            if (authority == scope || hidesRecords(view, path))
                history.hidden.push_back(path);
    std::vector<Completion>& completions = history.completions;
    for (const auto& [authority, view] : views)
        for (const auto& [id, record] : view.completed) {
            if (!record.state || !concerns(*record.state, authority, scope))
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
    return history;
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

Json historyJson(const History& history)
{
    Json json{{"scope", history.scope}, {"complete", history.hidden.empty()}, {"completed", Json::array()}};
    for (const Completion& completion : history.completions)
        json["completed"].push_back(completionJson(completion));
    json["unreadable"] = Json::array();
    for (const std::string& path : history.hidden)
        json["unreadable"].push_back(printable(path, 4096));
    if (const std::string advice = history.advice(); !advice.empty())
        json["advice"] = advice;
    return json;
}

std::string historyText(const History& history, const Paint& paint)
{
    std::string text;
    for (const Completion& completion : history.completions)
        text += completionText(completion, paint);
    if (!history.completions.empty())
        text += "a record does not tell whether it was committed, rolled back or uninstalled\n";
    for (const std::string& path : history.hidden)
        text += paint.doubtful("may not be read by this account: ") + printable(path, 4096) + "\n";
    if (const std::string advice = history.advice(); !advice.empty())
        text += "to do: " + advice + "\n";
    text += (history.hidden.empty() ? "" : "at least ") +
            counted(history.completions.size(), "completed transaction") + " in the " + history.scope +
            " scope";
    if (const std::size_t records = history.hiddenRecords(); records > 0)
        text += ", " + std::to_string(records) + " may not be read";
    return text + "\n";
}

} // namespace

Answer runHistory(const HistoryOptions& options, bool json, const Terminal& terminal)
{
    std::map<std::string, ScopeView> views;
    for (const char* scope : {"user", "system"})
        views.emplace(scope, readScope(scope));
    const ScopeView& view = views.at(options.scope);
    const History history = historyOf(views, options.scope);
    const FindingList damaged = [&] {
        FindingList findings;
        for (const Finding& finding : view.sightings.findings)
            if (finding.place.find("/Completed") != std::string::npos)
                findings.push_back(finding);
        return findings;
    }();
    const int status = !damaged.empty() ? Findings : history.hidden.empty() ? AllRight : NotPermitted;
    return {status, json ? jsonText(historyJson(history)) : historyText(history, terminal.out),
            findingsText(damaged, terminal.err)};
}

} // namespace maintenance::kit
