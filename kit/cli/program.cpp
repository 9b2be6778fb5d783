#include "kit/cli/program.h"

#include "cli/process.h"
#include "kit/cli/commands.h"
#include "kit/report/failure.h"

#include <csignal>
#include <unistd.h>

namespace maintenance::kit {

namespace {

Answer answerTo(const Options& options)
{
    const Terminal terminal = examineTerminal(options.quiet);
    struct Runner {
        bool json;
        const Terminal& terminal;

        Answer operator()(const PlanOptions& words) const { return runPlan(words, json, terminal); }
        Answer operator()(const CheckOptions& words) const { return runCheck(words, json, terminal); }
        Answer operator()(const DescriptorOptions& words) const
        {
            return runDescriptor(words, json, terminal);
        }
        Answer operator()(const ShowOptions& words) const { return runShow(words, json, terminal); }
        Answer operator()(const StatusOptions& words) const { return runStatus(words, json, terminal); }
        Answer operator()(const VerifyOptions& words) const { return runVerify(words, json, terminal); }
        Answer operator()(const HistoryOptions& words) const { return runHistory(words, json, terminal); }
    };
    return std::visit(Runner{options.json, terminal}, options.command);
}

int deliver(const Answer& answer)
{
    writeWhole(STDERR_FILENO, answer.err);
    if (writeWhole(STDOUT_FILENO, answer.out))
        return answer.status;
    writeWhole(STDERR_FILENO,
               "tpm-kit: cannot write standard output\n    to do: send it somewhere that takes it\n");
    return OutputFailed;
}

Answer failed(bool json, const Failure& failure)
{
    return {failure.status(), json ? failureJson(failure) : "", failureText(failure)};
}

Answer answerSafely(const Options& options)
{
    try {
        return answerTo(options);
    } catch (const Failure& failure) {
        return failed(options.json, failure);
    } catch (const std::exception& error) {
        return failed(options.json, Failure(InternalError, error.what(),
                                            "this should not happen; report it with the command line"));
    }
}

} // namespace

int runProgram(int argumentCount, const char* const* arguments)
{
    prepareProcess();
    (void)std::signal(SIGPIPE, SIG_IGN);
    const CommandLine line = readCommandLine(argumentCount, arguments);
    if (!line.options)
        return deliver({line.status, line.out, line.err});
    return deliver(answerSafely(*line.options));
}

} // namespace maintenance::kit
