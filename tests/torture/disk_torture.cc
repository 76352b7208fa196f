// The daemon with a damaged store: it is refused and left unchanged, or its intact records are served. No reply has
// anything but stored data.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <random>

#include "quillsecurity.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"
#include "tests/support/scale.h"
#include "tests/support/store.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kKeys = 40;

std::string key_record(unsigned user, const std::string& text) {
    ssh_key_rec record{};
    numbered("user", user).copy(record.user_name, sizeof record.user_name - 1);
    text.copy(record.key_text, sizeof record.key_text - 1);
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

// Longer than half a page of the store.
std::string key_of(unsigned user) {
    std::string text;
    while (text.size() < 2100) text += numbered("key of ", user) + " ";
    return text;
}

std::string ask(RawClient& client, uint32_t operation, unsigned user, const std::string& text = "") {
    return client.ask(request_frame(SECURITY_SSHKEY_FILE_REQUEST, operation, key_record(user, text)));
}

bool succeeded(const std::string& reply) { return reply.size() >= 12 && reply.compare(8, 4, word(0)) == 0; }

// Whether the reply to GET for this user is correct or, with `may_fail`, reports a failure.
bool is_correct(RawClient& client, unsigned user, bool may_fail = false) {
    const std::string reply = ask(client, GET_REQ, user);
    if (reply == reply_frame(0, key_record(user, key_of(user)))) return true;
    return may_fail && reply.size() == 16 && !succeeded(reply) &&
           reply != reply_frame(SECURITY_ERR_NOT_FOUND, "");
}

TEST(Disk, ADamagedStoreIsReportedAndNeverOverwritten) {
    Box box;
    {
        Daemon daemon;
        RawClient client;
        for (unsigned user = 0; user < kKeys; ++user)
            EXPECT_TRUE(succeeded(ask(client, SET_REQ, user, key_of(user))));
        daemon.end();
    }
    const std::string file = box.state() + "/security.db", whole = read_file(file);
    std::mt19937 numbers(1);
    const std::function<char(char)> damages[] = {[](char) { return '\0'; },
                                                 [](char c) { return static_cast<char>(~c); },
                                                 [&](char) { return static_cast<char>(numbers()); }};
    unsigned refused = 0, served = 0, unreadable = 0, unaffected = 0;
    const auto check = [&](const std::string& what, const std::string& bytes) {
        SCOPED_TRACE(what);
        fs::remove(file + "-wal");
        write_file(file, bytes);
        Daemon daemon;
        if (!daemon.ready()) {
            ++refused;
            EXPECT_EQ(1, daemon.end(0));
            EXPECT_NE(std::string::npos, daemon.log().find("store " + file + ": ")) << daemon.log();
            for (const auto& [name, left] : files_in(box.state()))
                EXPECT_EQ(name == "security.db" ? bytes : "", left) << name;
            return;
        }
        ++served;
        RawClient client;
        unsigned failed = 0;
        for (unsigned user = 0; user < kKeys; ++user) {
            EXPECT_TRUE(is_correct(client, user, true)) << user;
            failed += !is_correct(client, user);
        }
        unreadable += failed;
        unaffected += failed == 0;
        EXPECT_EQ(failed != 0, daemon.log().find("damaged") != std::string::npos) << daemon.log();
        for (const auto& [name, left] : files_in(box.state()))
            EXPECT_TRUE(name != "security.db" || left == bytes) << "changed by reading";
    };
    for (const size_t length : {size_t{0}, size_t{50}, size_t{100}, size_t{512}, whole.size() / 2,
                                whole.size() - 4096, whole.size() - 1})
        check("truncated to " + std::to_string(length), whole.substr(0, length));
    for (const auto& damage : damages) {
        const auto damaged = [&](size_t from, size_t size) {
            std::string bytes = whole;
            for (size_t i = from; i < from + size; ++i) bytes[i] = damage(bytes[i]);
            return bytes;
        };
        const auto kind = std::to_string(&damage - damages) + " at ";
        check(kind + "all", damaged(0, whole.size()));
        check(kind + "header", damaged(0, 100));
        for (size_t page = 0; page < whole.size(); page += 4096)
            check(kind + std::to_string(page), damaged(page, 4096));
    }
    EXPECT_LT(0u, refused);
    EXPECT_LT(0u, unreadable) << "no damage was found";
    report_figures(std::to_string(refused) + " damaged stores refused and untouched, " +
                   std::to_string(served) + " served with " + std::to_string(unreadable) +
                   " records that cannot be read, " + std::to_string(unaffected) + " of them without any");
}

}  // namespace
