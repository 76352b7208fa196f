#include "tests/support/scale.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool full_scale() {
    const char* chosen = getenv("QUILL_TORTURE");
    return chosen != nullptr && strcmp(chosen, "full") == 0;
}

}  // namespace

unsigned scale(const char* name, unsigned brief, unsigned full) {
    const char* chosen = getenv(name);
    if (chosen != nullptr) return static_cast<unsigned>(std::stoul(chosen));
    return full_scale() ? full : brief;
}

double allowed(double at_full_scale) { return at_full_scale * (full_scale() ? 1 : 20); }

Spread::Spread(std::vector<double> durations) {
    std::sort(durations.begin(), durations.end());
    least = durations.front();
    median = durations[durations.size() / 2];
    p99 = durations[durations.size() * 99 / 100];
    most = durations.back();
}

std::string Spread::text() const {
    char text[120];
    snprintf(text, sizeof text, "median %.3f, p99 %.3f, %.3f to %.3f ms", median * 1e3, p99 * 1e3,
             least * 1e3, most * 1e3);
    return text;
}

void report_figures(const std::string& text) {
    printf("figures: %s\n", text.c_str());
    fflush(stdout);
}
