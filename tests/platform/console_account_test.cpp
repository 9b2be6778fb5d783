#include "platform/console_account.h"

#include "support/child.h"
#include "support/scene.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

constexpr const char* seatFile = "/run/systemd/seats/seat0";

std::string answer()
{
    const std::optional<uid_t> account = consoleAccountUid();
    return account ? std::to_string(*account) : "nobody";
}

TEST(ConsoleAccount, IsTheOneThatIsActiveAtTheSeat)
{
    EXPECT_EQ(answer(), "501");
    setConsole(502);
    EXPECT_EQ(answer(), "502");
}

TEST(ConsoleAccount, IsPassedOnAsThePlatformReportsIt)
{
    setConsole(0);
    EXPECT_EQ(answer(), "0");
    setConsole(65534);
    EXPECT_EQ(answer(), "65534");
    setConsole(4294967294u);
    EXPECT_EQ(answer(), "4294967294");
}

TEST(ConsoleAccount, IsNobodyWithoutAnActiveSession)
{
    setNobodyAtConsole();
    EXPECT_EQ(answer(), "nobody");
    setConsole(501);
    EXPECT_EQ(answer(), "501");
}

TEST(ConsoleAccount, IsNobodyWithoutALoginManager)
{
    removeLoginManager();
    EXPECT_EQ(answer(), "nobody");
}

TEST(ConsoleAccount, IsNobodyWhenTheSeatSaysNothingUsable)
{
    for (const char* text : {"", "IS_SEAT0=1\n", "ACTIVE_UID=\n", "ACTIVE_UID=player\n", "ACTIVE_UID=-1\n",
                             "ACTIVE_UID=4294967295\n", "ACTIVE_UID=4294967296\n", "ACTIVE_UID=501x\n",
                             "ACTIVE=1\nSESSIONS=1\nUIDS=501\n", "#ACTIVE_UID=501\n", "\n\n\n"}) {
        writeFile(seatFile, text);
        EXPECT_EQ(answer(), "nobody") << text;
    }
    removeAll(seatFile);
    makeDirectories(seatFile);
    EXPECT_EQ(answer(), "nobody");
}

/// What is answered while the seat's file cannot be opened.
Ending answerWithout(int error)
{
    const auto fail = [=](const SystemCall& call) { return call.text(1) == seatFile ? error : 0; };
    return stopping({SYS_openat}, fail, answer);
}

TEST(ConsoleAccount, ThatTheMachineCannotTellJustNowIsNotNobody)
{
    for (const int error : {EIO, EMFILE, ENFILE, ENOMEM, EINTR})
        EXPECT_EQ(answerWithout(error), runtimeError("cannot resolve the invoking console account")) << error;
    for (const int error : {ENOENT, EACCES, ENOTDIR})
        EXPECT_EQ(answerWithout(error), returned("nobody")) << error;
}

TEST(ConsoleAccount, IsTheSameForEveryAccountThatAsks)
{
    for (const uid_t account : {0u, 501u, 502u})
        EXPECT_EQ(asAccount(account, answer), returned("501"));
}

TEST(ConsoleAccount, LeavesNoDescriptorOpen)
{
    const std::size_t before = openDescriptors();
    answer();
    setNobodyAtConsole();
    answer();
    removeLoginManager();
    answer();
    EXPECT_EQ(openDescriptors(), before);
}

TEST(ConsoleAccount, OfTheRealProgramIsRefusedWhenItIsRootOrUnknown)
{
    const Outcome unknown = refused("cannot resolve the invoking console account");
    publish(Work("user").brings(plugin("alpha", "1.0")), "install-1");
    const Tree before = takeTree();
    setConsole(0);
    EXPECT_EQ(run({"prepare-move", "user", "install-1"}), unknown);
    setNobodyAtConsole();
    EXPECT_EQ(run({"prepare-move", "user", "install-1"}), unknown);
    removeLoginManager();
    EXPECT_EQ(run({"prepare-move", "user", "install-1"}), unknown);
    EXPECT_EQ(difference(before, takeTree()), "");
}

} // namespace
} // namespace maintenance::rehearsed
