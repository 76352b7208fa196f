# For the shell of packaging/sandbox: starts the daemon and sets the prompt.
PS1='[quill sandbox] \w\$ '
socket=/run/quillsecurity/quillsecurityd.sock

if [ ! -S "$socket" ]; then
    # In a session of its own, so that Ctrl-C at the prompt does not end it.
    setsid quillsecurityd --foreground 2>>/var/log/quillsecurityd.log </dev/null &
    disown
    for _ in {1..100}; do
        if [ -S "$socket" ]; then break; fi
        sleep 0.02
    done
fi
if [ -S "$socket" ]; then
    echo "quillsecurityd is running and logs to /var/log/quillsecurityd.log; try: quillsec service show"
else
    echo "quillsecurityd does not run; see /var/log/quillsecurityd.log" >&2
fi
unset socket _
