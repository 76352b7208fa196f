// How much of something the endurance tests do, and what they say of it.
#pragma once

#include <string>
#include <vector>

// `full` where $QUILL_TORTURE is that, else `brief`; the environment may have a number of this name instead.
unsigned scale(const char* name, unsigned brief, unsigned full);

// What may be used of time or memory: as much as given at full scale, which wants a machine that does nothing
// else, and twenty times that in passing.
double allowed(double at_full_scale);

// Of at least one duration, in seconds.
struct Spread {
    explicit Spread(std::vector<double> durations);
    double least, median, p99, most;
    std::string text() const;  // in milliseconds
};

// One line for whoever reads the results; `make torture` gathers them.
void report_figures(const std::string& text);
