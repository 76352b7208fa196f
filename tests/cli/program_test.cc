// quillsec over a stub in place of the daemon: statuses, replies and lost races that a real daemon does not
// produce on demand. What it does is tested in tests/e2e.
#include "cli/program.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "quillplatform.h"
#include "quillsecurity.h"
#include "tests/cli/quillsec.h"

namespace {

using Serve = std::function<uint32_t(uint32_t operation, std::string& record)>;

Serve the_daemon;  // record: in host order; replaced by the reply
int requests;

// The status of each request, and errno where that is 0xffffffff.
void refuse_all(uint32_t status, int error = 0) {
    the_daemon = [=](uint32_t, std::string&) {
        errno = error;
        return status;
    };
}

template <class Record>
void serve(uint32_t (*function)(uint32_t operation, Record& record)) {
    the_daemon = [=](uint32_t operation, std::string& bytes) {
        Record record;
        memcpy(&record, bytes.data(), sizeof record);
        const uint32_t status = function(operation, record);
        memcpy(bytes.data(), &record, sizeof record);
        return status;
    };
}

std::map<uint32_t, uint32_t> services;

class Program : public testing::Test {
 protected:
    void SetUp() override {
        requests = 0;
        services.clear();
        the_daemon = [](uint32_t, std::string& record) -> uint32_t {
            uint32_t word[2];
            memcpy(word, record.data(), sizeof word);
            if (!services.contains(word[0])) return SECURITY_ERR_NO_VALUE;
            memcpy(record.data() + sizeof *word, &services[word[0]], sizeof *word);
            return SECURITY_OK;
        };
    }
};

nlohmann::json json(std::vector<const char*> words) {
    words.push_back("--json");
    const Result result = quillsec(words);
    EXPECT_EQ("", result.err);
    return nlohmann::json::parse(result.out);
}

}  // namespace

int32_t security_cmi(int32_t type, uint32_t operation, void* request, void** reply, uint32_t* length,
                     uint32_t) {
    ++requests;
    std::string record(static_cast<const char*>(request), *length);
    security_conf_cmi_byteorder_convert(type, record.data());
    const uint32_t status = the_daemon(operation, record);
    security_conf_cmi_byteorder_convert(type, record.data());
    *length = 0;
    const bool replies = status == SECURITY_OK || status == SECURITY_ERR_CRYPT;
    if (!replies || reply == nullptr) return static_cast<int32_t>(status);
    *length = static_cast<uint32_t>(record.size());
    *reply = malloc(record.size());
    memcpy(*reply, record.data(), record.size());
    return static_cast<int32_t>(status);
}

namespace {

TEST_F(Program, MapsEachStatusToAnExitCode) {
    const uint32_t not_delivered = 0xffffffff;
    const struct {
        uint32_t status;
        int error, exit;
        const char *name, *hex;
    } cases[] = {
        {SECURITY_ERR_NOT_PERMITTED, 0, 5, "SECURITY_ERR_NOT_PERMITTED", "0x404a0106"},
        {SECURITY_ERR_BUSY, 0, 8, "SECURITY_ERR_BUSY", "0x404a0107"},
        {SECURITY_ERR_REQUEST_TYPE, 0, 1, "SECURITY_ERR_REQUEST_TYPE", "0x404a0102"},
        {PSS_IN_USE, 0, 8, "PSS_IN_USE", "0x40480007"},
        {PSS_FULL, 0, 9, "PSS_FULL", "0x40480009"},
        {PSS_ENGINE, 0, 9, "PSS_ENGINE", "0x40480011"},
        {0x40481234, 0, 9, nullptr, "0x40481234"},
        {0x404a1234, 0, 1, nullptr, "0x404a1234"},
        {not_delivered, ENOENT, 7, "ENOENT", "0x804a0002"},
        {not_delivered, ECONNREFUSED, 7, "ECONNREFUSED", "0x804a006f"},
        {not_delivered, EACCES, 5, "EACCES", "0x804a000d"},
        {not_delivered, ETIMEDOUT, 10, "ETIMEDOUT", "0x804a006e"},
        {not_delivered, EMFILE, 7, "EMFILE", "0x804a0018"},
        {SECURITY_ERR_TRANSPORT | uint32_t{EPROTO}, ENOENT, 1, "EPROTO", "0x804a0047"},
    };
    for (const auto& c : cases) {
        refuse_all(c.status, c.error);
        const auto error = json({"service", "set", "ssh", "on"}).at("error");
        EXPECT_EQ(c.exit, quillsec({"service", "set", "ssh", "on"}).exit) << c.hex;
        EXPECT_EQ(c.exit, error.at("exit_code")) << c.hex;
        EXPECT_EQ(c.hex, error.at("status").at("hex"));
        EXPECT_EQ(c.name ? nlohmann::json(c.name) : nlohmann::json(), error.at("status").at("name"));
        EXPECT_NE("", error.at("remedy")) << c.hex;
    }
    requests = 0;
    quillsec({"service", "show"});
    EXPECT_EQ(1, requests) << "the first failure ends the command";
}

TEST_F(Program, ShowsEveryKindOfValue) {
    services = {{SECURITY_SERVICE_SSH, 1},
                {SECURITY_SERVICE_TELNET, 0},
                {SECURITY_SERVICE_SCP, 7},
                {SECURITY_SERVICE_RSA_KEY, 2048},
                {SECURITY_SERVICE_DSA_KEY, 1}};
    const std::string page = quillsec({"service", "show"}).out;
    EXPECT_EQ(0u, page.find("NAME               VALUE\nssh                on\ntelnet             off\n"
                            "http-server        not set\nrsa key            2048\ndsa key            1\n"));
    const auto rows = json({"service", "show"}).at("services");
    ASSERT_EQ(13u, rows.size());
    EXPECT_EQ(R"({"name":"http-server","value":null})", rows[2].dump());
    EXPECT_EQ(R"({"name":"scp","value":7})", rows[7].dump());
    const auto defaults = json({"service", "defaults"}).at("defaults");
    ASSERT_EQ(9u, defaults.size());
    EXPECT_EQ(R"({"default":"on","differs":false,"name":"ssh","value":"on"})", defaults[0].dump());
    EXPECT_EQ(R"({"default":null,"differs":null,"name":"telnet","value":"off"})", defaults[1].dump());
    EXPECT_EQ(R"({"default":1024,"differs":true,"name":"rsa key","value":2048})", defaults[3].dump());
    EXPECT_EQ(R"({"default":"off","differs":true,"name":"ploty","value":null})", defaults[7].dump());
}

TEST_F(Program, TakesGlobalOptionsAnywhere) {
    for (const std::vector<const char*>& line : std::initializer_list<std::vector<const char*>>{
             {"--json", "--timeout", "7", "service", "show", "ssh"},
             {"service", "--json", "--timeout=7", "show", "ssh"},
             {"service", "show", "--timeout", "7", "ssh", "--json"},
             {"--timeout", "1", "service", "show", "ssh", "--json", "--timeout", "2", "--timeout", "7"}}) {
        security_cmi_timeout = 60;
        EXPECT_EQ("{\"services\":[\n  {\"name\":\"ssh\",\"value\":null}\n]}\n", quillsec(line).out);
        EXPECT_EQ(7u, security_cmi_timeout);
    }
    EXPECT_EQ("{\"version\":\"1.0.0\"}\n", quillsec({"service", "show", "--version", "--json"}).out);
}

// A list is changed by reading it and storing it whole; another client may change it in between.
TEST_F(Program, ChangesAListAgainAfterALostRace) {
    static std::vector<std::string> roles;
    static std::vector<uint32_t> races_lost;  // the statuses of the next changes
    const struct {
        const char* verb;
        std::vector<uint32_t> lost;
        int exit;
        std::vector<std::string> roles;
    } cases[] = {
        {"add", {SECURITY_ERR_CHANGED, 0xffffffff, SECURITY_ERR_CHANGED}, 0, {"priv-1", "priv-2"}},
        {"remove", {0xffffffff, SECURITY_ERR_CHANGED}, 0, {}},
        {"add", std::vector<uint32_t>(1000, SECURITY_ERR_CHANGED), 8, {"priv-1"}},
    };
    for (const auto& c : cases) {
        roles = {"priv-1"};
        races_lost = c.lost;
        the_daemon = [](uint32_t operation, std::string& bytes) -> uint32_t {
            if (bytes.size() == 1) return SECURITY_OK;  // the client asks whether there is a daemon
            security_user_roles list;
            memcpy(&list, bytes.data(), sizeof list);
            if (operation != GET_REQ && !races_lost.empty()) {
                const uint32_t status = races_lost.back();
                races_lost.pop_back();
                errno = ESTALE;
                return status;
            }
            if (operation == SET_REQ) roles.assign(list.roles, list.roles + list.num_roles);
            if (operation == DEL_REQ) std::erase(roles, list.roles[0]);
            list.num_roles = static_cast<int32_t>(roles.size());
            for (size_t i = 0; i < roles.size(); ++i) strcpy(list.roles[i], roles[i].c_str());
            memcpy(bytes.data(), &list, sizeof list);
            return SECURITY_OK;
        };
        const Result result = quillsec({"role", c.verb, "root", c.verb[0] == 'a' ? "priv-2" : "priv-1"});
        EXPECT_EQ(c.exit, result.exit) << result.err;
        EXPECT_EQ(c.roles, roles);
        EXPECT_EQ(c.exit == 8, result.err.find("others keep changing the list") != std::string::npos);
    }
}

TEST_F(Program, ShowsEveryEncoding) {
    serve<security_priv_info>([](uint32_t, security_priv_info& info) -> uint32_t {
        if (info.priv_lvl % 2 == 0) return SECURITY_ERR_NO_PRIV_LVL;
        info.encryption_type = info.priv_lvl;
        return SECURITY_OK;
    });
    const std::string page = quillsec({"secret", "show"}).out;
    EXPECT_EQ(
        0u,
        page.find("LEVEL  SECRET   ENCRYPTION\n1      set      hash\n2      not set\n3      set      3\n"));
    EXPECT_NE(std::string::npos, page.find("\n7      set      cipher\n"));
    EXPECT_EQ(16, std::count(page.begin(), page.end(), '\n'));

    serve<security_user>([](uint32_t, security_user& user) -> uint32_t {
        user.encryption_type = SECURITY_ENCRYPTION_HASH;
        memset(user.password, 'p', sizeof user.password);  // without a terminator
        return SECURITY_OK;
    });
    const auto record = json({"record", "show", "bob", "--show-password"}).at("records").at(0);
    EXPECT_EQ("hash", record.at("encoding"));
    EXPECT_EQ(std::string(sizeof(security_user::password), 'p'), record.at("password"));
}

// A daemon that gives the same record again and again, or a reply of the wrong size, does not go unnoticed.
TEST_F(Program, RefusesRepliesThatMakeNoSense) {
    refuse_all(SECURITY_ERR_CRYPT);
    EXPECT_EQ(1, quillsec({"record", "show"}).exit);
    the_daemon = [](uint32_t, std::string& record) -> uint32_t {
        record.resize(4);
        return SECURITY_OK;
    };
    const Result result = quillsec({"record", "show"});
    EXPECT_EQ(
        "quillsec: the daemon does not speak this client's protocol; install quillsec and quillsecurityd "
        "of the same version\n",
        result.err);
}

}  // namespace
