#include <cstdio>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// The tests rewrite "/Library", "/Users" and the package database of whatever machine they run on.
bool isRehearsalRoot()
{
    struct stat calls {};
    struct stat home {};
    return ::lstat("/run/pkgutil-stand-in.calls", &calls) == 0 && ::lstat("/Users/player", &home) == 0 &&
           home.st_uid == 501 && ::geteuid() == 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (!isRehearsalRoot()) {
        std::fputs("run this in a rehearsal root: rehearsal/rehearse -- TESTS [arguments]\n", stderr);
        return 2;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
