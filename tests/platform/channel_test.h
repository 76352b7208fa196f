// The tests of the request channel: requests by the library, and a server with some handlers.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "quillplatform/shell.h"
#include "quillsecurity/status.h"
#include "tests/platform/server_process.h"

using quill::Answer;
using quill::Peer;
using quill::Request;

struct Outcome {
    int32_t status;
    int error;
    std::string record;
    double seconds;
};

inline Outcome ask(int32_t type, const std::string& record = "record", uint32_t operation = 1) {
    std::string request = record;
    auto length = static_cast<uint32_t>(request.size());
    auto* reply = reinterpret_cast<void*>(1);
    const double start = seconds_now();
    errno = 0;
    const int32_t status = security_cmi(type, operation, request.data(), &reply, &length, 1);
    const int error = errno;
    const std::string bytes = reply == nullptr ? "(null)" : std::string(static_cast<char*>(reply), length);
    EXPECT_EQ(reply == nullptr, length == 0);
    EXPECT_TRUE(status >= 0 || reply == nullptr) << "nothing comes with a failure";
    free(reply);
    return {status, status < 0 ? error : 0, bytes, seconds_now() - start};
}

enum : uint32_t { kEcho = 1, kSlow /* milliseconds as a text */, kDie, kCount };

// A handler for each of these types.
inline Answer answer(const Peer&, Request& request) {
    static int requests = 0;
    ++requests;
    switch (request.type) {
    case kSlow:
        sleep_for(std::stoi(std::string(reinterpret_cast<char*>(request.record), request.length)) / 1000.0);
        return answer_text(request, "late");
    case kDie:
        _exit(0);
    case kCount:
        EXPECT_TRUE(std::all_of(request.record, request.record + 1000, [](auto byte) { return byte == 0; }))
            << "an earlier record was not wiped";
        return answer_text(request, std::to_string(requests));
    default:
        return {0, request.length, false};
    }
}

class Channel : public testing::Test {
 protected:
    Channel() { security_cmi_timeout = 1; }

    std::string socket_path() const { return box.run() + "/quillsecurityd.sock"; }

    Box box;
};
