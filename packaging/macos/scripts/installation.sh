# What the scripts of an installation share; sourced by them.
# shellcheck shell=sh disable=SC2034,SC2154 # what the scripts that source this set and read
PATH=/usr/bin:/bin:/usr/sbin:/sbin
export PATH
umask 022
label=com.tamarindpelican.finish

# use_scope SCOPE: sets the places of a scope, and refuses an account that may not install there.
use_scope()
{
    scope=$1
    case $scope in
    user)
        [ "$(id -u)" != 0 ] || refuse 'an installation in a home runs as the account itself, never as root'
        root=$(account_home)
        domain=gui/$(id -u)
        jobs=$root/Library/LaunchAgents
        log=$root/Library/Logs/$label.log
        ;;
    system)
        [ "$(id -u)" = 0 ] || refuse 'an installation for all accounts runs as root'
        root=
        domain=system
        jobs=/Library/LaunchDaemons
        log=/var/log/$label.log
        ;;
    *) refuse "\"$scope\" is neither \"user\" nor \"system\"" ;;
    esac
    support="$root/Library/Application Support/Tamarind Pelican"
    tool=$support/TamarindPelicanMaintenance
    maintenance=$support/Maintenance
    finishing=$support/Finishing
    job=$jobs/$label.plist
}

refuse()
{
    echo "refused: $*" >&2
    exit 65
}

# account_home: the home that the account database tells; HOME may name another account's.
account_home()
{
    account=$(id -un)
    case $account in
    '' | [!A-Za-z0-9_]* | *[!A-Za-z0-9._-]*) refuse "the account name \"$account\" is not understood" ;;
    esac
    eval "printf '%s\n' ~$account"
}

# require_own_directories: nothing is put, and run, where another account could exchange it.
require_own_directories()
{
    for directory in "$root/Library" "$root/Library/Application Support" "$support"; do
        [ -e "$directory" ] || [ -L "$directory" ] || continue
        [ -n "$(find "$directory" -prune -type d -user "$(id -u)" ! -perm -020 ! -perm -002)" ] ||
            refuse "$directory is not a directory of this account alone"
    done
}

# setting NAME: a value that the preinstall script noted for the finishing job.
setting()
{
    sed -n "s/^$1=//p" "$finishing/settings" 2>/dev/null
}

# boot_session: another value after each start of the machine.
boot_session()
{
    sysctl -n kern.bootsessionuuid 2>/dev/null || echo unknown
}

# expected_packages: identifier and version of each package of the transaction, from its descriptor.
expected_packages()
{
    awk -F '\t' '/^target=/ { print $2, $3 }' "$maintenance/Inbox/$id.tpmt" | sort -u
}

# registered PACKAGE: its version and the time of its installation, nothing when there is no receipt.
registered()
{
    pkgutil --volume "${root:-/}" --pkg-info "$1" 2>/dev/null |
        awk '/^version: / { version = $2 } /^install-time: / { time = $2 } END { if (version != "") print version, time }'
}

# is_prepared: whether the transaction waits for commit-move or rollback-move.
is_prepared()
{
    [ -e "$maintenance/Transactions/$id/prepared" ] && grep -qsx "transaction=$id" "$maintenance/ActiveTransaction"
}

# withdraw_attempt: an attempt of which nothing was prepared would keep every other installer out.
withdraw_attempt()
{
    if grep -qsx "transaction=$id" "$maintenance/PendingInstall"; then
        rm -f "$maintenance/PendingInstall"
    fi
    rm -f "$maintenance/Inbox/$id.tpmt"
}

remove_job()
{
    rm -f "$job" "$finishing/settings"
    rm -f "$finishing/placed" "$finishing/tries" "$finishing/finish-installation" "$finishing/installation.sh"
    remove_dead_driver
    rmdir "$finishing" 2>/dev/null || :
}

# start_job: at once where the account has a session; otherwise the next start or login finds it.
start_job()
{
    launchctl bootout "$domain/$label" 2>/dev/null || :
    launchctl bootstrap "$domain" "$job" 2>/dev/null
}

# driver_is_running: a driver that waits for the installer does the job's work itself.
driver_is_running()
{
    driver=$(cat "$finishing/driver" 2>/dev/null) && kill -0 "$driver" 2>/dev/null
}

# remove_dead_driver: what a driver left behind that was killed.
remove_dead_driver()
{
    driver_is_running || rm -f "$finishing/driver"
}

# advice MESSAGE: what a person can do about a refusal of the maintenance tool.
advice()
{
    case $1 in
    'scope migration requires an explicit trusted decision' | 'product exists in the opposite scope')
        echo 'It is already installed for all accounts, or for one. Use the installer that moves it, or uninstall it there.' ;;
    'pending installation attempt is bound to another plan' | 'another maintenance transaction is active' | \
        'another durable maintenance transaction is active')
        echo 'Another installation is not finished. Run its installer again, or restart the computer; then try again.' ;;
    'target-side downgrade is refused' | 'installed common package revision is newer; common downgrade is refused')
        echo 'A newer version is already installed.' ;;
    'manual installation collision requires adopt or replace')
        echo 'Copies that no installer put there are in the way. Remove them, then try again.' ;;
    *'forward recovery' | *'rollback cannot restore package registration')
        echo 'Run the same installer again.' ;;
    *) echo 'Run the same installer again. If that does not help, /var/log/install.log tells more.' ;;
    esac
}

# notify TEXT: shows it to the person at the screen, if there is one.
notify()
{
    set -- osascript -e 'on run {message}' -e 'display notification message with title "Tamarind Pelican"' -e 'end run' "$1"
    if [ "$scope" = system ]; then
        # shellcheck disable=SC2012 # stat has other options on each system
        uid=$(ls -ln /dev/console | awk '{ print $3 }')
        [ "${uid:-0}" != 0 ] || return 0
        set -- launchctl asuser "$uid" sudo -u "#$uid" "$@"
    fi
    "$@" >/dev/null 2>&1 || :
}
