// Child processes of a test.
#pragma once

#include <sys/types.h>

#include <functional>
#include <vector>

// Runs the body in a child, so that its environment, limits, credentials and crashes stay there. Answers how
// it ended: 0 where all its expectations held, 1 where one failed, 128 and the signal that killed it.
int in_child(const std::function<void()>& body);

// The same in two steps.
pid_t start_child(const std::function<void()>& body);
int wait_for(pid_t child);

// Gives up root for a user and group that own nothing; `groups` are kept besides.
void become_nobody(gid_t group = 65534, const std::vector<gid_t>& groups = {}, uid_t user = 65534);

double seconds_now();
void sleep_for(double seconds);
