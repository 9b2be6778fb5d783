# Completion of tpm-kit for bash: read with "source", or installed where bash-completion looks.

# Prints the options of a subcommand; those of the program itself without one.
_tpm_kit_options()
{
    local every='--help -h --json --quiet -q' payload='--root -r --package -p'
    case $1 in
    '') echo '--help -h --version' ;;
    plan) echo "$every $payload --products -l --output -o" ;;
    check) echo "$every $payload --kind -k --scope -s --id --strict" ;;
    descriptor) echo "$every --scope -s --id --plan --sku --product --recorded --decision --output -o" ;;
    show) echo "$every --kind -k" ;;
    verify) echo "$every --against -a" ;;
    *) echo "$every" ;;
    esac
}

# Prints what may follow an option of a subcommand: words, or "@files", "@directories"; "@free" for what only
# the user knows. Fails for an option that stands alone.
_tpm_kit_values()
{
    case $1:$2 in
    check:--kind | check:-k) echo 'plan descriptor' ;;
    show:--kind | show:-k) echo 'plan descriptor attempt transaction product-record index manifest receipt lock absence' ;;
    *:--scope | *:-s) echo 'user system' ;;
    *:--decision) echo 'none adopt replace' ;;
    *:--root | *:-r) echo '@directories' ;;
    *:--package | *:-p | *:--products | *:-l | *:--output | *:-o | *:--plan | *:--against | *:-a) echo '@files' ;;
    *:--id | *:--sku | *:--product | *:--recorded) echo '@free' ;;
    *) return 1 ;;
    esac
}

# Prints what a subcommand takes without an option in front.
_tpm_kit_operands()
{
    case $1 in
    '') echo 'plan check descriptor show status verify history' ;;
    check | show) echo '@files' ;;
    descriptor) echo 'move adopt replace uninstall' ;;
    status | verify | history) echo 'user system' ;;
    esac
}

_tpm_kit()
{
    local current=$2 previous=$3 subcommand='' answer word i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        if [[ ${COMP_WORDS[i]} != -* ]]; then
            subcommand=${COMP_WORDS[i]}
            break
        fi
    done
    COMPREPLY=()
    if ! answer=$(_tpm_kit_values "$subcommand" "$previous"); then
        if [[ $current == -* ]]; then
            answer=$(_tpm_kit_options "$subcommand")
        else
            answer=$(_tpm_kit_operands "$subcommand")
        fi
    fi
    case $answer in
    @free) ;;
    @files | @directories)
        # Only where bash itself asks; a test calls the function without.
        compopt -o filenames 2>/dev/null
        word=-f
        [[ $answer == @files ]] || word=-d
        mapfile -t COMPREPLY < <(compgen "$word" -- "$current")
        ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$answer" -- "$current") ;;
    esac
}

complete -F _tpm_kit tpm-kit
