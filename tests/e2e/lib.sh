# Shared by the end-to-end scripts, which run in packaging/sandbox.
set -euo pipefail

# expect STATUS COMMAND [ARGUMENT...]: the command must exit with this status; leaves its output in $out.
out=
expect() {
    local want=$1 got=0
    shift
    out=$("$@" 2>&1) || got=$?
    if [ "$got" != "$want" ]; then
        printf '%s: line %s: exit %s, not %s, from: %s\n%s\n' "$0" "${BASH_LINENO[0]}" "$got" "$want" "$*" "$out" >&2
        exit 1
    fi
}

# The last output must contain this text.
says() {
    if [[ $out != *"$1"* ]]; then
        printf '%s: line %s: "%s" is not in:\n%s\n' "$0" "${BASH_LINENO[0]}" "$1" "$out" >&2
        exit 1
    fi
}

# The last output must be one JSON document for which this jq condition is true.
holds() {
    if ! printf '%s' "$out" | jq -e -s "length == 1 and (.[0] | $1)" >/dev/null; then
        printf '%s: line %s: %s does not hold for:\n%s\n' "$0" "${BASH_LINENO[0]}" "$1" "$out" >&2
        exit 1
    fi
}

# Waits up to ten seconds for a command to succeed.
wait_for() {
    local _
    for _ in {1..200}; do if "$@"; then return; fi; sleep 0.05; done
    echo "$0: line ${BASH_LINENO[0]}: never: $*" >&2
    exit 1
}

# given LINE COMMAND [ARGUMENT...]: with the line on standard input.
given() { printf '%s\n' "$1" | "${@:2}"; }

as_nobody() { setpriv --reuid nobody --regid nogroup --clear-groups "$@"; }

skip() {
    echo "skipped: $*"
    exit 77
}

need_other_users() {
    if [ -n "${QUILL_SANDBOX_SINGLE_USER:-}" ]; then skip "this box has one user"; fi
}

stop_daemon() {
    pkill "${1:--TERM}" -x quillsecurityd || return 0
    while pgrep -x quillsecurityd >/dev/null; do sleep 0.02; done
}
trap 'stop_daemon -KILL' EXIT
