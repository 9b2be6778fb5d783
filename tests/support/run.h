#pragma once

#include "support/disk.h"

#include <csignal>
#include <iosfwd>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <vector>

/// Running the real program.
namespace maintenance::rehearsed {

/// How a run ended. Compare whole outcomes: EXPECT_EQ(run({"inspect", "user", "x"}), refused("..."));
struct Outcome {
    /// Exit status; minus the signal's number when a signal ended the run; -1000 when it had to be stopped
    /// after half a minute.
    int status = 0;
    std::string out;
    std::string err;

    bool operator==(const Outcome&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome);

/// Status 0, nothing on standard error.
Outcome succeeded(const std::string& out = "");
/// Status 64 and no word.
Outcome usageError();
/// Status 65 and one line.
Outcome refused(const std::string& message);
/// Status 66 and one line.
Outcome notLocated(const std::string& message);
/// Status 70 and one line.
Outcome failed(const std::string& message);
Outcome endedBy(int signal);

/// Where standard output goes.
enum class Output { Captured, FullDevice, BrokenPipe };

/// What a run finds around itself. The environment names another account, which the program must not believe.
struct Surroundings {
    uid_t account = rootUid;
    mode_t umask = 022;
    /// RLIMIT_FSIZE.
    std::optional<rlim_t> largestFile;
    Output output = Output::Captured;
    /// Standard descriptors that are closed at start.
    std::vector<int> closed;
    /// SIGCHLD is ignored at start, as some parents leave it.
    bool childSignalsIgnored = false;
    /// The executable; empty for the built one.
    std::filesystem::path tool;
    /// The first argument; most shells pass the executable's name.
    std::string name = "TamarindPelicanMaintenance";
};

/// The surroundings of a run by the account at the console.
Surroundings asPlayer();

using Arguments = std::vector<std::string>;

/// Runs the program to its end.
Outcome run(const Arguments& arguments, const Surroundings& surroundings = {});

/// Runs the program with no argument at all, not even its name.
Outcome runWithoutName();

/// Runs any other command of the rehearsal root; the first word is its path.
Outcome runCommand(const Arguments& words, const Surroundings& surroundings = {});

/// The path of the program that is tested.
std::filesystem::path builtTool();

} // namespace maintenance::rehearsed
