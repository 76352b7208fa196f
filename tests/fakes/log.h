// What the code under test says to syslog(3), which is the test's where log.cc is among its sources.
#pragma once

#include <string>
#include <vector>

// Its lines, each with its priority before it.
std::vector<std::string>& log_lines();
