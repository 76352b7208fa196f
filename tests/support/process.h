// Child processes of a test.
#pragma once

#include <sys/types.h>

#include <functional>
#include <vector>

// Runs the body in a child process, which isolates changes of environment, limits and credentials, and
// crashes. Returns its exit code, which is 0 if all expectations held and 1 if one failed, or 128 plus the
// number of the signal that killed it.
int in_child(const std::function<void()>& body);

// The same in two steps: start_child() returns the process id, wait_for() the result of in_child().
pid_t start_child(const std::function<void()>& body);
int wait_for(pid_t child);

// Drops root's privileges: switches to an unprivileged user and group, with `groups` as supplementary groups.
void become_nobody(gid_t group = 65534, const std::vector<gid_t>& groups = {}, uid_t user = 65534);

double seconds_now();
void sleep_for(double seconds);
