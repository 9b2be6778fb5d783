#include "kit/cli/commands.h"
#include "kit/cli/more_rights.h"
#include "kit/machine/transaction_view.h"
#include "kit/report/failure.h"
#include "kit/report/printable.h"
#include "kit/report/sheet.h"

#include <algorithm>

namespace maintenance::kit {

namespace {

constexpr std::size_t longestPath = 4096;

using Products = std::map<std::string, std::string>;

/// What is told of one scope.
struct ScopeReport {
    const ScopeView& view;
    const Registrations& registrations;
    Products products;
    std::string sharedRevision;
    FindingList findings;
};

Finding warning(const std::string& place, std::string rule, std::string advice)
{
    return {Finding::Severity::Warning, place, 0, {}, std::move(rule), {}, std::move(advice)};
}

/// Compares what others read about installed products with what is registered.
void compareBooks(ScopeReport& report)
{
    if (!report.registrations.sound)
        return;
    constexpr const char* advice = "the next commit-move or uninstall-product in this scope writes it anew";
    const std::string place = "books of the " + report.view.scope + " scope";
    if (report.view.index.value_or(Products()) != report.products)
        report.findings.push_back(
            warning(place, "installed-products.json does not list what is registered", advice));
    if (report.view.records != report.products)
        report.findings.push_back(warning(place, "the product records are not what is registered", advice));
}

void noteLeftovers(ScopeReport& report)
{
    for (const std::string& path : report.view.leftovers)
        report.findings.push_back(warning(path, "left by a run that was killed, or not the tool's",
                                          "delete it when no run is going on: rm " + shellQuoted(path)));
}

ScopeReport reportOn(const ScopeView& view, const Registrations& registrations)
{
    ScopeReport report{view, registrations, {}, {}, {}};
    report.findings = view.sightings.findings;
    for (const Finding& finding : registrations.findings)
        report.findings.push_back(finding);
    report.products = registeredProducts(registrations, view.scope, report.findings);
    const auto shared = registrations.packages.find("com.tamarindpelican.pkg.common");
    if (shared != registrations.packages.end())
        report.sharedRevision = shared->second.version;
    // What may not be read is no difference.
    if (view.sightings.unreadable.empty())
        compareBooks(report);
    noteLeftovers(report);
    return report;
}

/// Everything that is told.
struct Report {
    std::vector<ScopeReport> scopes;
    std::vector<TransactionView> transactions;

    bool needsAttention() const
    {
        return std::any_of(scopes.begin(), scopes.end(),
                           [](const ScopeReport& scope) {
                               return !scope.findings.empty() || scope.view.hidesOpenWork();
                           }) ||
               std::any_of(transactions.begin(), transactions.end(),
                           [](const auto& one) { return one.isOpen(); });
    }
    bool isComplete() const
    {
        return std::all_of(scopes.begin(), scopes.end(), [](const ScopeReport& scope) {
            return scope.view.sightings.unreadable.empty() && scope.registrations.known;
        });
    }
    /// The scopes of which this account may not read everything.
    std::vector<std::string> hiddenScopes() const
    {
        std::vector<std::string> hidden;
        for (const ScopeReport& scope : scopes)
            if (!scope.view.sightings.unreadable.empty())
                hidden.push_back(scope.view.scope);
        return hidden;
    }
    /// The command that would tell the rest; empty when nothing is missing for want of rights.
    std::string advice() const
    {
        const std::vector<std::string> hidden = hiddenScopes();
        if (hidden.empty())
            return {};
        return withMoreRights(hidden.size() > 1 ? "status" : "status " + hidden.front());
    }
    int status() const { return needsAttention() ? Findings : isComplete() ? AllRight : NotPermitted; }
};

bool isAskedFor(const StatusOptions& options, const std::string& scope)
{
    return options.scope.empty() || options.scope == scope;
}

bool concerns(const StatusOptions& options, const TransactionView& transaction)
{
    return isAskedFor(options, transaction.authority) || isAskedFor(options, transaction.source) ||
           isAskedFor(options, transaction.target);
}

Report makeReport(const StatusOptions& options, const MachineView& machine)
{
    Report report;
    for (const char* scope : {"user", "system"})
        if (isAskedFor(options, scope))
            report.scopes.push_back(reportOn(machine.scopes.at(scope), machine.registrations.at(scope)));
    for (TransactionView& transaction : transactionsOf(machine))
        if (concerns(options, transaction))
            report.transactions.push_back(std::move(transaction));
    return report;
}

Json productsJson(const Products& products)
{
    Json array = Json::array();
    for (const auto& [id, version] : products)
        array.push_back({{"id", id}, {"version", version}});
    return array;
}

Json pathsJson(const std::vector<std::string>& paths)
{
    Json array = Json::array();
    for (const std::string& path : paths)
        array.push_back(printable(path, longestPath));
    return array;
}

Json scopeJson(const ScopeReport& report)
{
    const ScopeView& view = report.view;
    Json json{{"scope", view.scope}, {"root", view.root}, {"productsKnown", report.registrations.known}};
    json["products"] = productsJson(report.products);
    if (!report.sharedRevision.empty())
        json["sharedPackage"] = printable(report.sharedRevision);
    if (view.lease)
        json["lease"] = view.lease->state ? Json(view.lease->state->transaction) : Json(nullptr);
    if (view.pending)
        json["pending"] = {{"sku", view.pending->sku},
                           {"packageRevision", view.pending->packageRevision},
                           {"transaction", view.pending->transaction}};
    else if (view.pendingFile)
        json["pending"] = nullptr;
    if (view.running)
        json["runningProcess"] = *view.running;
    json["leftovers"] = pathsJson(view.leftovers);
    json["unreadable"] = pathsJson(view.sightings.unreadable);
    json["findings"] = findingsJson(report.findings);
    return json;
}

Json transactionJson(const TransactionView& transaction)
{
    Json json{{"id", transaction.id},
              {"state", wordOf(transaction.state)},
              {"open", transaction.isOpen()},
              {"authority", transaction.authority}};
    if (!transaction.target.empty()) {
        json["sourceScope"] = transaction.source;
        json["targetScope"] = transaction.target;
    }
    json["pendingInstall"] = transaction.pending;
    json["products"] = transaction.products;
    json["notes"] = transaction.notes;
    json["waysOut"] = Json::array();
    for (const WayOut& way : transaction.waysOut) {
        Json out{{"effect", way.effect}, {"commands", way.commands}};
        if (!way.condition.empty())
            out["condition"] = way.condition;
        json["waysOut"].push_back(std::move(out));
    }
    return json;
}

Json reportJson(const Report& report)
{
    Json json{{"attention", report.needsAttention()}, {"complete", report.isComplete()}};
    if (const std::string advice = report.advice(); !advice.empty())
        json["advice"] = advice;
    json["scopes"] = Json::array();
    for (const ScopeReport& scope : report.scopes)
        json["scopes"].push_back(scopeJson(scope));
    json["transactions"] = Json::array();
    for (const TransactionView& transaction : report.transactions)
        json["transactions"].push_back(transactionJson(transaction));
    return json;
}

std::string leaseText(const ScopeView& view)
{
    if (!view.lease)
        return "none";
    return view.lease->state ? "held by " + view.lease->state->transaction : "there, but it cannot be read";
}

std::string pendingText(const ScopeView& view)
{
    if (view.pending)
        return view.pending->sku + ", package revision " + view.pending->packageRevision + ": " +
               view.pending->transaction;
    return view.pendingFile ? "there, but it cannot be read" : "none";
}

std::string productsText(const ScopeReport& report)
{
    std::string text;
    for (const auto& [id, version] : report.products)
        text += (text.empty() ? "" : "\n") + id + " " + version;
    if (text.empty())
        text = report.registrations.known ? "none" : "unknown: the package database cannot be asked";
    return text;
}

std::string scopeText(const ScopeReport& report, const Paint& paint)
{
    const ScopeView& view = report.view;
    Sheet sheet;
    sheet.add("products", productsText(report));
    if (!report.sharedRevision.empty())
        sheet.add("shared package", "revision " + printable(report.sharedRevision));
    sheet.add("lease", leaseText(view));
    sheet.add("pending attempt", pendingText(view));
    if (view.running)
        sheet.add("running", "process " + std::to_string(*view.running) + " holds the lock");
    sheet.add("completed", counted(view.completed.size(), "transaction"));
    std::string text = paint.strong(view.scope + " scope") + " " + printable(view.root) + "\n";
    text += sheet.text(paint, "  ");
    for (const std::string& path : view.sightings.unreadable)
        text +=
            "  " + paint.doubtful("may not be read by this account: ") + printable(path, longestPath) + "\n";
    return text;
}

std::string routeOf(const TransactionView& transaction)
{
    if (transaction.target.empty())
        return transaction.authority + " scope";
    return transaction.source == "none" ? "in the " + transaction.target + " scope"
                                        : "from " + transaction.source + " to " + transaction.target;
}

std::string transactionText(const TransactionView& transaction, const Paint& paint)
{
    const std::string word = wordOf(transaction.state);
    std::string text = paint.strong(transaction.id) + ": " + (transaction.isOpen() ? paint.bad(word) : word) +
                       ", " + routeOf(transaction) + "\n";
    for (const std::string& product : transaction.products)
        text += "  product  " + product + "\n";
    for (const std::string& note : transaction.notes)
        text += "  " + note + "\n";
    for (const WayOut& way : transaction.waysOut) {
        text += "  to " + way.effect + (way.condition.empty() ? "" : " (" + way.condition + ")") + ":\n";
        for (const std::string& command : way.commands)
            text += "    " + command + "\n";
    }
    return text;
}

std::string reportText(const Report& report, const Paint& paint)
{
    std::string text;
    for (const ScopeReport& scope : report.scopes)
        text += scopeText(scope, paint) + "\n";
    for (const TransactionView& transaction : report.transactions)
        if (transaction.state != TransactionState::Completed)
            text += transactionText(transaction, paint) + "\n";
    for (const ScopeReport& scope : report.scopes)
        text += findingsText(scope.findings, paint);
    if (const std::string advice = report.advice(); !advice.empty())
        text += "to do: " + advice + "\n";
    if (report.needsAttention())
        return text + paint.bad("something needs attention, see above") + "\n";
    return text +
           (report.isComplete() ? paint.good("nothing is open")
                                : paint.doubtful("nothing is open, as far as this account may read")) +
           "\n";
}

} // namespace

Answer runStatus(const StatusOptions& options, bool json, const Terminal& terminal)
{
    const MachineView machine = readMachine();
    const Report report = makeReport(options, machine);
    return {report.status(), json ? jsonText(reportJson(report)) : reportText(report, terminal.out), {}};
}

} // namespace maintenance::kit
