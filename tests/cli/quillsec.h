// The program, run in this process.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/program.h"

struct Result {
    int exit;
    std::string out;
    std::string err;
};

inline Result quillsec(const std::vector<const char*>& words) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int exit = quill::cli::run(words);
    const std::string out = testing::internal::GetCapturedStdout();
    return {exit, out, testing::internal::GetCapturedStderr()};
}
