# Completion of ./dev for bash: source completion/dev.bash
# What can be completed is read from the files beside it whenever it is needed, so that nothing here grows old.
_dev_home=$(cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.." && pwd)

# Prints the commands as ./dev lists them.
_dev_commands()
{
    sed -n "/^usage: /,/^END\$/s/^  \\([a-z][a-z-]*\\)  .*/\\1/p" "$_dev_home/dev"
}

# Prints the options of a campaign that its --help shows.
_dev_campaign_options()
{
    sed -n '/SUPPRESS/d; s/.*add_argument("\(--[a-z-]*\)".*/\1/p' "$_dev_home/campaigns/$1/$1.py" \
        "$_dev_home/campaigns/common/"*.py
}

_dev()
{
    local current=$2 previous=$3 subcommand=${COMP_WORDS[1]} words=''
    if ((COMP_CWORD == 1)); then
        words=$(_dev_commands)
    elif [[ $subcommand == test && $previous == -L ]]; then
        words=$(cd "$_dev_home/tests" && printf '%s\n' */*_test.cpp | cut -d/ -f1 | sort -u)
    elif [[ $subcommand == test ]]; then
        words='-R -E -L -LE -I -N -V -j --rerun-failed --output-on-failure --repeat --stop-on-failure --timeout'
    elif [[ -e $_dev_home/campaigns/$subcommand/$subcommand.py ]]; then
        words="$(_dev_campaign_options "$subcommand") --help"
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -o default -F _dev dev ./dev
