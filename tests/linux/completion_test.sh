#!/bin/bash
# completion_test.sh bash|zsh: the installed completion of tavrctl offers every command and option that its helps show,
# and nothing else, at every place; and what an argument may be.
set -u
shell=$1
command -v "$shell" >/dev/null || { echo "there is no $shell here; scripts/setup test installs it"; exit 77; }
failed=0
complain() { echo "FAILED: $*"; failed=1; }

# What is offered behind WORD..., of which the last is being typed; one a line.
if [ "$shell" = bash ]; then
    # shellcheck source=/dev/null
    . /usr/share/bash-completion/completions/tavrctl
    offered() {
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
        _tavrctl
        [ ${#COMPREPLY[@]} = 0 ] || printf '%s\n' "${COMPREPLY[@]}"
    }
else
    # The shell's own functions, which would show what they get, print it; they filter by what is typed.
    offered() {
        zsh -f -c '
            zmodload zsh/parameter   # as in a shell that completes
            _describe() { [[ $1 == -o ]] && shift; print -rl -- "${(@)${(P)2}%%:*}"; }
            _files() { print -rl -- *(N); }
            _message() { }
            complete_now() { . /usr/share/zsh/vendor-completions/_tavrctl; }
            words=("$@") CURRENT=$#
            complete_now' zsh "$@" | { if [ -n "${!#}" ]; then grep -F -- "${!#}"; else cat; fi }
    }
fi
shown() {   # SECTION COMMAND...: first words of a help's section
    local section=$1
    shift
    tavrctl "$@" --help | awk -v section="$section:" '/^[^ ]/ { on = $0 == section } on && /^  [a-z-]/ { sub(/[{:].*/, "", $1); print $1 }'
}

checked=0
walk() {   # COMMAND...
    local commands options name
    commands=$(shown Subcommands "$@") options=$(shown Options "$@")
    [ -n "$options" ] || complain "the help of tavrctl $* shows no option"
    [ "$(offered tavrctl "$@" -- | sort)" = "$(sort <<<"$options")" ] ||
        complain "tavrctl $* -: $(offered tavrctl "$@" -- | tr '\n' ' ')instead of ${options//$'\n'/ }"
    if [ -n "$commands" ]; then
        [ "$(offered tavrctl "$@" '' | sort)" = "$(sort <<<"$commands")" ] ||
            complain "tavrctl $*: $(offered tavrctl "$@" '' | tr '\n' ' ')instead of ${commands//$'\n'/ }"
    fi
    checked=$((checked + 1))
    for name in $commands; do walk "$@" "$name"; done
}
walk

same() {   # EXPECTED WORD...
    local expected=$1 found
    shift
    found=$(offered "$@" | sort | tr '\n' ' ')
    [ "$found" = "$expected " ] || complain "$*: $found instead of $expected"
}
same "none starttls tls" tavrctl mail server --security ''
same "starttls" tavrctl mail server --host mx.example --security sta
same "admin custom none user" tavrctl enforce option ''
same "--desc --help --mail" tavrctl --json user set --desc add --
[ -z "$(offered tavrctl mail server --host '')" ] || complain "a host's name is offered"
cd /tmp && touch ca-of-a-test.pem
same "ca-of-a-test.pem" tavrctl mail server --ca-file ca-of

[ $checked -gt 40 ] || complain "$checked commands alone were looked at"
echo "$checked commands"
exit $failed
