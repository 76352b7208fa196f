// The log of the code under test. Programs with log.cc among their sources replace syslog(3).
#pragma once

#include <string>
#include <vector>

// The lines logged so far, each after its priority.
std::vector<std::string>& log_lines();
