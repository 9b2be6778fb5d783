#include "rehearse/accounts.h"

#include "rehearse/failure.h"

#include <cstdlib>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

std::string accountTable(const std::string& machine)
{
    std::string table;
    for (const Account& account : accounts) {
        const std::string name = account.name;
        table += name + ":*:" + std::to_string(account.uid) + ":" + std::to_string(staffGroup) + ":" +
                 account.fullName + ":/Users/" + name + ":/bin/sh\n";
    }
    return table + machine;
}

std::string groupTable(const std::string& machine)
{
    return "staff:*:" + std::to_string(staffGroup) + ":\nadmin:*:" + std::to_string(adminGroup) + ":\n" +
           machine;
}

void becomeAccount(const std::string& name)
{
    const passwd* account = ::getpwnam(name.c_str());
    if (account == nullptr)
        throw Failure(statusFailed, "no account " + name + " in the root");
    if (::initgroups(account->pw_name, account->pw_gid) != 0 ||
        ::setresgid(account->pw_gid, account->pw_gid, account->pw_gid) != 0 ||
        ::setresuid(account->pw_uid, account->pw_uid, account->pw_uid) != 0) {
        throw Failure(statusFailed, "cannot become " + name + ": " + std::strerror(errno));
    }
    ::setenv("HOME", account->pw_dir, 1);
    ::setenv("USER", account->pw_name, 1);
    ::setenv("LOGNAME", account->pw_name, 1);
}
