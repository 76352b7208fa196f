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

as() { setpriv --reuid "$1" --regid "$1" --init-groups "${@:2}"; }
as_nobody() { setpriv --reuid nobody --regid nogroup --clear-groups "$@"; }

# Programs and libraries of the tests.
tests=$(realpath "$(dirname "$(command -v quillsecurityd)")/../tests")
export ASAN_OPTIONS=${ASAN_OPTIONS:-}:verify_asan_link_order=0     # some are preloaded

# start [VARIABLE=VALUE...]: the daemon of context 1 in the foreground, with its log in /tmp/daemon.log
start() {
    rm -f /run/quillsecurity/quillsecurityd.sock    # which a killed daemon leaves
    env "$@" quillsecurityd --foreground 2>>/tmp/daemon.log &
    wait_for [ -S /run/quillsecurity/quillsecurityd.sock ]
}
# Waits until the log has a line with this pattern.
logged() { wait_for grep -q -e "$1" /tmp/daemon.log; }

# Nothing may be left of the account with this stored name.
lines_of() { grep -h "^$1:" /etc/{passwd,shadow,group,gshadow,subuid,subgid} || true; }
gone() {
    if [ -n "$(lines_of "$1")" ] || [ -e "/bootflash/home/$1" ] || [ -L "/bootflash/home/$1" ]; then
        echo "$0: line ${BASH_LINENO[0]}: something of '$1' is left: $(lines_of "$1")" >&2
        exit 1
    fi
}

# A random text of letters, none of them twice in a row, and all pieces of this length of some texts.
letters() {
    local text='' next all=abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ
    while [ ${#text} -lt "$1" ]; do
        next=${all:RANDOM % 52:1}
        if [[ $text != *"$next" ]]; then text+=$next; fi
    done
    echo "$text"
}
pieces() {
    local text i
    for text in "${@:2}"; do for ((i = 0; i + $1 <= ${#text}; i++)); do echo "${text:i:$1}"; done; done
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
