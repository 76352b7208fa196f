# What the end-to-end scripts share. They run in packaging/sandbox, so everything they touch is their own.
set -euo pipefail

# Runs a command that must end with the given status; its output is kept in $out.
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

# The last output must hold this text.
says() {
    if [[ $out != *"$1"* ]]; then
        printf '%s: line %s: "%s" is not in:\n%s\n' "$0" "${BASH_LINENO[0]}" "$1" "$out" >&2
        exit 1
    fi
}

# A jq condition on the last output, which must be one JSON document.
holds() {
    if ! printf '%s' "$out" | jq -e -s "length == 1 and (.[0] | $1)" >/dev/null; then
        printf '%s: line %s: %s does not hold for:\n%s\n' "$0" "${BASH_LINENO[0]}" "$1" "$out" >&2
        exit 1
    fi
}

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
