# shellcheck shell=bash
# Counts the failures of a test script, which sources this file and ends with
# exit $((failures > 0)).
failures=0

# Reports a failure and goes on.
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# expect WHAT COMMAND...: fails, naming WHAT, if the command fails.
expect() {
    local what=$1
    shift
    "$@" || fail "$what"
}
