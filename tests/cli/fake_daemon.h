// A daemon at the other end of security_cmi, for the library's own requests: it keeps secrets and user
// records in the clear light of a map and answers as the real one, or whatever a test wants.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "quillsecurity.h"

struct FakeDaemon {
    std::map<int32_t, security_priv_info> levels;
    std::map<std::pair<bool, std::string>, security_user> users;  // by second table and name; encoded as set
    bool hands_out_hashes = false;                                // or answers that they do not decode
    std::vector<std::string> roles;                               // of everybody
    std::vector<uint32_t> lost_races;  // statuses of the next changes of that list, none of which is made
    uint32_t answer = SECURITY_OK;
    std::vector<std::string> requests;  // records in host order, byte for byte
};
FakeDaemon& fake_daemon();

class FakeDaemonTest : public testing::Test {
 protected:
    void SetUp() override { fake_daemon() = FakeDaemon(); }
};

// As the client's --stdin finds it while this is in scope.
class StandardInput {
 public:
    explicit StandardInput(const std::string& bytes);
    ~StandardInput();
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;

    std::string left() const;  // what nobody has read

 private:
    int saved_;
};
