// The scale of the endurance tests, and the report of their results.
#pragma once

#include <string>
#include <vector>

// Returns the number in the environment variable `name`, if set, else `full` if $QUILL_TORTURE is "full",
// else `brief`.
unsigned scale(const char* name, unsigned brief, unsigned full);

// Returns a limit of time or memory: the given one at full scale, which needs an idle machine, and twenty
// times as much at brief scale.
double allowed(double at_full_scale);

// Statistics of durations in seconds, of which there is at least one.
struct Spread {
    explicit Spread(std::vector<double> durations);
    double least, median, p99, most;
    std::string text() const;  // in milliseconds
};

// Prints one line of results; `make torture` collects them.
void report_figures(const std::string& text);
