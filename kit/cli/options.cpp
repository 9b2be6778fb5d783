#include "kit/cli/options.h"

#include "kit/report/failure.h"
#include "kit/report/printable.h"
#include "kit/text/plan_text.h"
#include "kit/text/tool_file.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>

namespace maintenance::kit {

namespace {

constexpr const char* programFooter =
    "Exit status: 0 all right; 64 wrong usage; 65 something is wrong with the input or needs attention; 66 "
    "an input\n"
    "is missing or unreadable; 70 internal error; 73 the output cannot be written; 74 standard output fails; "
    "77\n"
    "nothing is wrong as far as could be read, but not everything could.\n"
    "Colours and progress appear on a terminal only; NO_COLOR=1 turns colours off, --quiet the progress.";

/// The subcommands under construction, each with the options that it fills.
struct Commands {
    CLI::App app{
        "tpm-kit prepares, checks and explains what the Tamarind Pelican maintenance tool works with.\n"
        "It needs no rights and changes nothing but the file that it is told to write.",
        "tpm-kit"};
    Options options;
    PlanOptions plan;
    CheckOptions check;
    DescriptorOptions descriptor;
    ShowOptions show;
    StatusOptions status;
    VerifyOptions verify;
    HistoryOptions history;
};

CLI::App* addCommand(Commands& commands, const char* name, const char* description, const char* footer)
{
    CLI::App* command = commands.app.add_subcommand(name, description);
    command->add_flag("--json", commands.options.json, "Print the result as JSON");
    command->add_flag("-q,--quiet", commands.options.quiet, "Show no progress");
    command->footer(footer);
    return command;
}

void addPayloadOptions(CLI::App* command, PayloadOptions& payload)
{
    auto* root =
        command->add_option("-r,--root", payload.roots,
                            "Staged tree that is laid out like a scope root; may be given several times");
    auto* package = command->add_option("-p,--package", payload.packages,
                                        "Component package or product archive; may be given several times");
    for (CLI::Option* option : {root, package})
        option->type_name("PATH")->expected(1, 1)->take_all()->allow_extra_args(false);
    root->excludes(package);
}

void addPlan(Commands& commands)
{
    CLI::App* command = addCommand(
        commands, "plan", "Write the transaction plan of an installation",
        "Example: tpm-kit plan --products heron.json --root stage -o transaction-plan.tpmp\n"
        "Refuses, with path and reason, whatever could not be installed, verified and removed safely.");
    PlanOptions& plan = commands.plan;
    command->add_option("-l,--products", plan.products, "Product list (JSON)")->type_name("FILE")->required();
    addPayloadOptions(command, plan.payload);
    plan.output = planName;
    command->add_option("-o,--output", plan.output, "Where the plan goes; \"-\" is standard output")
        ->type_name("FILE")
        ->capture_default_str();
}

void addCheck(Commands& commands)
{
    CLI::App* command = addCommand(
        commands, "check", "Say everything that is wrong with a plan or a descriptor",
        "Example: tpm-kit check transaction-plan.tpmp --package heron.pkg\n"
        "Each finding has its line, the offending text, the rule in words and the tool's own message.");
    CheckOptions& check = commands.check;
    command->add_option("file", check.file, "Plan or descriptor; \"-\" is standard input")
        ->type_name("FILE")
        ->required();
    command->add_option("-k,--kind", check.kind, "What the file is; found out unless given")
        ->check(CLI::IsMember({"plan", "descriptor"}));
    command
        ->add_option("-s,--scope", check.scope, "Scope whose inbox gets the descriptor; its own unless given")
        ->check(CLI::IsMember({"user", "system"}));
    command->add_option("--id", check.id,
                        "Identifier of the descriptor; the file's name without .tpmt unless given");
    addPayloadOptions(command, check.payload);
    command->add_flag("--strict", check.strict, "Take warnings for errors");
}

void addShow(Commands& commands)
{
    CLI::App* command = addCommand(
        commands, "show", "Show any of the tool's files, for people or as JSON",
        "Example: tpm-kit show --json ActiveTransaction\n"
        "Plans, descriptors, pending attempts, prepared transactions, leases, completed records, product\n"
        "records, the index of installed products, snapshot manifests and receipts, notes of absent files, "
        "the lock.");
    ShowOptions& show = commands.show;
    command->add_option("file", show.file, "Any of the tool's files; \"-\" is standard input")
        ->type_name("FILE")
        ->required();
    command->add_option("-k,--kind", show.kind, "What the file is; found out unless given")
        ->check(CLI::IsMember(fileKindWords()));
}

void addDescriptor(Commands& commands)
{
    CLI::App* command = addCommand(
        commands, "descriptor", "Write a descriptor that moves, adopts, replaces or uninstalls products",
        "Examples: tpm-kit descriptor move --scope system --id move-1 --plan transaction-plan.tpmp\n"
        "          tpm-kit descriptor uninstall --scope user --id gone-1 --sku heron-installer --product "
        "heron\n"
        "Without --plan the descriptor is made from what is installed: for a move in the other scope, "
        "otherwise in the\n"
        "scope itself. An identifier serves once: what was completed under it is never done again.");
    DescriptorOptions& words = commands.descriptor;
    command->add_option("kind", words.kind, "What it is to bring about")
        ->required()
        ->check(CLI::IsMember({"move", "adopt", "replace", "uninstall"}));
    command
        ->add_option("-s,--scope", words.scope, "Scope that the products end up in, or are uninstalled from")
        ->required()
        ->check(CLI::IsMember({"user", "system"}));
    command->add_option("--id", words.id, "Identifier of the descriptor and its transaction")->required();
    command->add_option("--plan", words.plan, "Plan to make it from")->type_name("FILE");
    command->add_option("--sku", words.sku, "Identifier of the installation; the plan's unless given");
    auto* product =
        command->add_option("--product", words.products, "Product that it is about; all unless given");
    auto* recorded =
        command->add_option("--recorded", words.recorded,
                            "PRODUCT=VERSION that must be installed when the work begins; any unless given");
    for (CLI::Option* option : {product, recorded})
        option->expected(1, 1)->take_all()->allow_extra_args(false);
    command
        ->add_option("--decision", words.decision, "Of a move: what becomes of files that no package brought")
        ->check(CLI::IsMember({"none", "adopt", "replace"}))
        ->capture_default_str();
    command
        ->add_option("-o,--output", words.output,
                     "Where it goes; IDENTIFIER.tpmt unless given, \"-\" is standard output")
        ->type_name("FILE");
}

CLI::Option* addScope(CLI::App* command, std::string& scope, const char* description)
{
    return command->add_option("scope", scope, description)->check(CLI::IsMember({"user", "system"}));
}

void addStatus(Commands& commands)
{
    CLI::App* command = addCommand(
        commands, "status", "Say what is installed, what is open and what finishes or undoes it",
        "Reads the fixed places of both scopes and changes nothing. What may not be read is said.");
    addScope(command, commands.status.scope, "Only this scope; both unless given");
}

void addVerify(Commands& commands)
{
    CLI::App* command = addCommand(
        commands, "verify", "Audit what is installed, file by file, and say which package to install again",
        "Compares with the descriptors of completed transactions unless a plan or descriptor is named.");
    addScope(command, commands.verify.scope, "Scope to audit")->required();
    command->add_option("-a,--against", commands.verify.against, "Plan or descriptor to compare with")
        ->type_name("FILE");
}

void addHistory(Commands& commands)
{
    CLI::App* command = addCommand(commands, "history", "List what was completed in a scope",
                                   "Times are those of the records' last change, in UTC.");
    addScope(command, commands.history.scope, "Scope to list")->required();
}

void requirePayload(const PayloadOptions& payload)
{
    if (payload.empty())
        throw CLI::RequiredError("--root or --package");
}

/// Picks the options of the command that was named.
CommandOptions commandOf(const Commands& commands)
{
    const std::string name = commands.app.get_subcommands().front()->get_name();
    if (name == "plan") {
        requirePayload(commands.plan.payload);
        return commands.plan;
    }
    if (name == "check")
        return commands.check;
    if (name == "descriptor")
        return commands.descriptor;
    if (name == "show")
        return commands.show;
    if (name == "status")
        return commands.status;
    if (name == "verify")
        return commands.verify;
    return commands.history;
}

/// The first word that nothing takes; empty when there is none.
std::string strangeWord(const Commands& commands)
{
    const std::vector<std::string> words = commands.app.remaining(true);
    return words.empty() ? "" : words.front();
}

/// What is wrong with the words. A word that is not understood comes before what it may have been meant for.
std::string complaint(const Commands& commands, const CLI::ParseError& error)
{
    const std::string word = strangeWord(commands);
    const bool isAboutWords = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr ||
                              dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr;
    if (word.empty() || !isAboutWords)
        return error.what();
    if (word.starts_with('-'))
        return printable(word) + " is no option here";
    return printable(word) +
           (commands.app.get_subcommands().empty() ? " is no command" : " is a word too many");
}

CommandLine usageError(const Commands& commands, const CLI::ParseError& error, bool json)
{
    const auto named = commands.app.get_subcommands();
    const std::string help =
        named.empty() ? "tpm-kit --help" : "tpm-kit " + named.front()->get_name() + " --help";
    const Failure failure(WrongUsage, complaint(commands, error), help);
    return {std::nullopt, WrongUsage, json ? failureJson(failure) : "", failureText(failure)};
}

} // namespace

CommandLine readCommandLine(int argumentCount, const char* const* arguments)
{
    Commands commands;
    commands.app.set_version_flag("--version", std::string("tpm-kit ") + MAINTENANCE_VERSION);
    commands.app.require_subcommand(1, 1);
    commands.app.footer(programFooter);
    addPlan(commands);
    addCheck(commands);
    addDescriptor(commands);
    addShow(commands);
    addStatus(commands);
    addVerify(commands);
    addHistory(commands);
    try {
        commands.app.parse(argumentCount, arguments);
        commands.options.command = commandOf(commands);
        return {commands.options, AllRight, {}, {}};
    } catch (const CLI::CallForHelp&) {
        return {std::nullopt, AllRight, commands.app.help(), {}};
    } catch (const CLI::CallForVersion& error) {
        return {std::nullopt, AllRight, std::string(error.what()) + "\n", {}};
    } catch (const CLI::ParseError& error) {
        const std::vector<std::string> words(arguments, arguments + argumentCount);
        return usageError(commands, error, std::find(words.begin(), words.end(), "--json") != words.end());
    }
}

} // namespace maintenance::kit
