# What tests in shell share: source it.
failures=0
fail() { printf 'FAILED (line %s): %s\n' "${BASH_LINENO[1]}" "$*"; failures=$((failures + 1)); }

# is STATUS OUTPUT COMMAND...: COMMAND ends with STATUS and prints OUTPUT (a pattern of the shell), standard input passed on.
is() {
    local status=$1 pattern=$2 output ended
    shift 2
    output=$("$@" 2>&1)
    ended=$?
    [ $ended = "$status" ] || fail "$* ended with $ended, not $status: $output"
    # shellcheck disable=SC2053   # a pattern
    [[ $output == $pattern ]] || fail "$* printed: $output"
}
