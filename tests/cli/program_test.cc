// quillsec from its words to its exit code, with a daemon that answers whatever a test wants: above all what
// a real one does not do on demand.
#include "cli/program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "quillplatform.h"
#include "quillsecurity.h"
#include "tests/cli/quillsec.h"

namespace {

struct Daemon {
    std::map<int32_t, uint32_t> values;  // services that are set
    uint32_t answer = SECURITY_OK;       // what each request gets
    int error = 0;                       // errno, where that is 0xffffffff
    int requests = 0;
    uint32_t timeout = 0;  // in force at the last request
};
Daemon the_daemon;

class Program : public testing::Test {
 protected:
    void SetUp() override {
        the_daemon = Daemon();
        security_cmi_timeout = 60;
    }
};
}  // namespace

uint32_t cmi_enable_info_config(uint32_t, uint32_t operation, int32_t code, uint32_t* value) {
    ++the_daemon.requests;
    the_daemon.timeout = security_cmi_timeout;
    errno = the_daemon.error;
    if (the_daemon.answer != SECURITY_OK) return the_daemon.answer;
    if (operation == SET_REQ) {
        the_daemon.values[code] = *value;
    } else if (!the_daemon.values.count(code)) {
        return SECURITY_ERR_NO_VALUE;
    } else {
        *value = the_daemon.values[code];
    }
    return SECURITY_OK;
}

namespace {

TEST_F(Program, AContextThatIsNoneIsNotTakenForTheFirst) {
    for (const char* context : {"0", "100", "two", "-1", "2x"}) {
        setenv("SYSMGR_VDC_ID", context, 1);
        EXPECT_EQ(2, quillsec({"service", "show"}).exit) << context;
        EXPECT_EQ(0u, the_daemon.requests);
    }
    unsetenv("SYSMGR_VDC_ID");
}

TEST_F(Program, SetsWhatTheWordsMean) {
    const struct {
        const char* name;
        const char* value;
        int32_t code;
        uint32_t want;
    } cases[] = {
        {"ssh", "off", SECURITY_SERVICE_SSH, 0},
        {"SSH", "ON", SECURITY_SERVICE_SSH, 1},
        {"http_server", "1", SECURITY_SERVICE_HTTP_SERVER, 1},
        {"bash shell", "0", SECURITY_SERVICE_BASH_SHELL, 0},
        {"password strength", "off", SECURITY_SERVICE_PASSWORD_STRENGTH, 0},
        {"rsa key", "0", SECURITY_SERVICE_RSA_KEY, 0},
        {"rsa-key", "768", SECURITY_SERVICE_RSA_KEY, 768},
        {"Rsa_Key", "16384", SECURITY_SERVICE_RSA_KEY, 16384},
        {"dsa key", "4096", SECURITY_SERVICE_DSA_KEY, 4096},
        {"rsa1 key", "512", SECURITY_SERVICE_RSA1_KEY, 512},
        {"ploty-http_port", "1", SECURITY_SERVICE_PLOTY_HTTP_PORT, 1},
        {"ploty https port", "65535", SECURITY_SERVICE_PLOTY_HTTPS_PORT, 65535},
    };
    for (const auto& c : cases) {
        the_daemon = Daemon();
        EXPECT_EQ(0, quillsec({"service", "set", c.name, c.value}).exit) << c.name;
        const std::map<int32_t, uint32_t> want = {{c.code, c.want}};
        EXPECT_EQ(want, the_daemon.values) << c.name << ' ' << c.value;
    }
}

// Nothing is asked of the daemon, and the one line names the object and the remedy.
TEST_F(Program, RefusesBeforeAsking) {
    const struct {
        std::vector<const char*> words;
        int exit;
        const char* line;
    } cases[] = {
        {{"service", "set", "ssh", "maybe"}, 6, "service 'ssh': value 'maybe' is not valid; use on or off"},
        {{"service", "set", "ssh", ""}, 6, "service 'ssh': value '' is not valid; use on or off"},
        {{"service", "set", "rsa-key", "767"},
         6,
         "service 'rsa key': value '767' is not valid; use 0 or 768 to 16384"},
        {{"service", "set", "rsa key", "16385"},
         6,
         "service 'rsa key': value '16385' is not valid; use 0 or 768 to 16384"},
        {{"service", "set", "dsa key", "1024x"},
         6,
         "service 'dsa key': value '1024x' is not valid; use 0 or 512 to 4096"},
        {{"service", "set", "rsa1 key", "4294967808"},
         6,  // 512, cut to 32 bits
         "service 'rsa1 key': value '4294967808' is not valid; use 0 or 512 to 4096"},
        {{"service", "set", "ploty http port", "0"},
         6,
         "service 'ploty http port': value '0' is not valid; use 1 to 65535"},
        {{"service", "set", "ploty http port", "-1"},
         6,
         "service 'ploty http port': value '-1' is not valid; use 1 to 65535"},
        {{"service", "set", "telnett", "maybe"},
         3,
         "service 'telnett' does not exist; did you mean 'telnet'?"},
        {{"service", "show", "shs"}, 3, "service 'shs' does not exist; did you mean 'ssh'?"},
        {{"service", "show", "ftp"}, 3, "service 'ftp' does not exist; 'quillsec service show' lists all"},
        {{"service", "show", ""}, 3, "service '' does not exist; 'quillsec service show' lists all"},
        {{"service", "show", "a\n\x1b[1m"},
         3,
         "service 'a\\x0a\\x1b[1m' does not exist; 'quillsec service show' lists all"},
        {{"service", "show", "set"}, 3, "service 'set' does not exist; 'quillsec service show' lists all"},
        {{},
         2,
         "a noun is missing; use user, role, locale, key, password, service, secret, record, banner, web, "
         "vdc, watch or selftest"},
        {{"servce", "show"}, 2, "noun 'servce' does not exist; did you mean 'service'?"},
        {{"service"}, 2, "service: a verb is missing; use show, set or defaults"},
        {{"service", "shwo", "ssh"}, 2, "service: verb 'shwo' does not exist; did you mean 'show'?"},
        {{"service", "replace"}, 2, "service: verb 'replace' does not exist; use show, set or defaults"},
        {{"service", "set", "ssh"},
         2,
         "service set: VALUE is missing; usage: quillsec service set NAME VALUE"},
        {{"service", "show", "rsa", "key"},
         2,
         "service show: argument 'key' is not expected; usage: quillsec service show [NAME]; "
         "quote what contains blanks"},
        {{"service", "set", "--", "ssh", "on", "-x"},
         2,
         "service set: argument '-x' is not expected; usage: quillsec service set NAME VALUE; "
         "quote what contains blanks"},
        {{"secret", "set", "3", "hunter2"},
         2,
         "secret set: there is an argument too many; usage: quillsec secret set LEVEL [--stdin] "
         "[--accept-weak]; "
         "secrets do not belong on the command line"},
        {{"record", "show", "amy", "bob"},
         2,
         "record show: argument 'bob' is not expected; usage: quillsec record show [NAME] [--type N] "
         "[--show-password]; quote what contains blanks"},
        {{"secret", "verify", "3", "--stdin=x"},
         2,
         "secret verify: option '--stdin' takes no value; see 'quillsec secret verify --help'"},
        {{"service", "show", "++"}, 2, "argument '++' is not expected; put '--' before it"},
        {{"service", "show", "--jsn"},
         2,
         "service show: option '--jsn' does not exist; did you mean '--json'?"},
        {{"--timeot=3", "service", "show"}, 2, "option '--timeot' does not exist; did you mean '--timeout'?"},
        {{"service", "show", "--timeout"},
         2,
         "service show: option '--timeout' needs a value; see 'quillsec service show --help'"},
        {{"--json=no", "service", "show"}, 2, "option '--json' takes no value; see 'quillsec --help'"},
        {{"service", "show", "--timeout", "0"},
         2,
         "option '--timeout': value '0' is not valid; use 1 to 3600 (seconds)"},
        {{"service", "show", "--timeout", ""},
         2,
         "option '--timeout': value '' is not valid; use 1 to 3600 (seconds)"},
    };
    for (const auto& c : cases) {
        const Result result = quillsec(c.words);
        EXPECT_EQ(c.exit, result.exit) << c.line;
        EXPECT_EQ("quillsec: " + std::string(c.line) + "\n", result.err);
        EXPECT_EQ("", result.out) << c.line;
    }
    EXPECT_EQ(0, the_daemon.requests);
}

TEST_F(Program, MapsWhatTheDaemonAnswers) {
    const uint32_t not_delivered = 0xffffffff;
    const struct {
        uint32_t answer;
        int error;
        int exit;
        const char* name;
        const char* hex;
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
        the_daemon.answer = c.answer;
        the_daemon.error = c.error;
        const Result result = quillsec({"service", "set", "ssh", "on", "--json"});
        EXPECT_EQ(c.exit, result.exit) << c.hex;
        const auto error = nlohmann::json::parse(result.out).at("error");
        EXPECT_EQ(c.exit, error.at("exit_code")) << c.hex;
        EXPECT_EQ(c.hex, error.at("status").at("hex"));
        EXPECT_EQ(c.name ? nlohmann::json(c.name) : nlohmann::json(), error.at("status").at("name"));
        EXPECT_NE("", error.at("remedy")) << c.hex;
        EXPECT_EQ("", result.err) << c.hex;
    }
}

TEST_F(Program, SaysWhatWasRefused) {
    the_daemon.answer = SECURITY_ERR_NOT_PERMITTED;
    const std::string remedy = " it; run as root or as a member of the administrators' group\n";
    EXPECT_EQ("quillsec: service 'ssh': you are not permitted to change" + remedy,
              quillsec({"service", "set", "ssh", "on"}).err);
    EXPECT_EQ("quillsec: service 'ssh': you are not permitted to read" + remedy,
              quillsec({"service", "show"}).err);
    EXPECT_EQ(2, the_daemon.requests) << "the first refusal ends the command";
    the_daemon.answer = 0xffffffff;
    the_daemon.error = ENOENT;
    EXPECT_EQ("quillsec: the daemon is not running (no socket); start quillsecurityd\n",
              quillsec({"service", "show"}).err);
    the_daemon.error = ETIMEDOUT;
    EXPECT_EQ("quillsec: the daemon did not answer in time; wait longer with --timeout\n",
              quillsec({"service", "show"}).err);
    EXPECT_EQ(
        "quillsec: the daemon did not answer in time; the change may or may not have been made; "
        "'quillsec service show' tells; wait longer with --timeout\n",
        quillsec({"service", "set", "ssh", "on"}).err);
}

TEST_F(Program, ShowsEveryKindOfValue) {
    the_daemon.values = {{SECURITY_SERVICE_SSH, 1},     {SECURITY_SERVICE_TELNET, 0},
                         {SECURITY_SERVICE_SCP, 7},     {SECURITY_SERVICE_RSA_KEY, 2048},
                         {SECURITY_SERVICE_DSA_KEY, 1}, {SECURITY_SERVICE_PASSWORD_STRENGTH, 1}};
    EXPECT_EQ(
        "NAME               VALUE\n"
        "ssh                on\n"
        "telnet             off\n"
        "http-server        not set\n"
        "rsa key            2048\n"
        "dsa key            1\n"
        "rsa1 key           not set\n"
        "fips               not set\n"
        "scp                7\n"
        "bash-shell         not set\n"
        "ploty              not set\n"
        "ploty http port    not set\n"
        "ploty https port   not set\n"
        "password-strength  on\n",
        quillsec({"service", "show"}).out);
    const auto services = nlohmann::json::parse(quillsec({"service", "show", "--json"}).out).at("services");
    ASSERT_EQ(13u, services.size());
    EXPECT_EQ(nlohmann::json::parse(R"({"name": "ssh", "value": "on"})"), services[0]);
    EXPECT_EQ(nlohmann::json::parse(R"({"name": "http-server", "value": null})"), services[2]);
    EXPECT_EQ(nlohmann::json::parse(R"({"name": "scp", "value": 7})"), services[7]);
}

TEST_F(Program, MarksWhatDiffersFromTheFactory) {
    the_daemon.values = {
        {SECURITY_SERVICE_SSH, 1}, {SECURITY_SERVICE_TELNET, 1}, {SECURITY_SERVICE_RSA_KEY, 2048}};
    const auto rows = nlohmann::json::parse(quillsec({"service", "defaults", "--json"}).out).at("defaults");
    const auto row = [&](size_t i) { return rows.at(i).dump(); };
    ASSERT_EQ(9u, rows.size());
    EXPECT_EQ(R"({"default":"on","differs":false,"name":"ssh","value":"on"})", row(0));
    EXPECT_EQ(R"({"default":null,"differs":null,"name":"telnet","value":"on"})", row(1));
    EXPECT_EQ(R"({"default":1024,"differs":true,"name":"rsa key","value":2048})", row(3));
    EXPECT_EQ(R"({"default":"off","differs":true,"name":"ploty","value":null})", row(7));
}

TEST_F(Program, TakesGlobalOptionsAnywhere) {
    const std::vector<std::vector<const char*>> lines = {
        {"--json", "--timeout", "7", "service", "show", "ssh"},
        {"service", "--json", "--timeout=7", "show", "ssh"},
        {"service", "show", "--timeout", "7", "ssh", "--json"},
        {"--timeout", "1", "service", "show", "ssh", "--json", "--timeout", "2", "--timeout", "7"},
    };
    for (const auto& line : lines) {
        SetUp();
        const Result result = quillsec(line);
        EXPECT_EQ("{\"services\":[\n  {\"name\":\"ssh\",\"value\":null}\n]}\n", result.out);
        EXPECT_EQ(7u, the_daemon.timeout);
    }
    EXPECT_EQ("{\"version\":\"1.0.0\"}\n", quillsec({"service", "show", "--version", "--json"}).out);
    EXPECT_EQ("quillsec: service '--json' does not exist; 'quillsec service show' lists all\n",
              quillsec({"service", "show", "--", "--json"}).err);
}

// With --json whatever is wrong comes as a document, bytes that are no text included.
TEST_F(Program, ComplainsInJson) {
    const std::vector<std::vector<const char*>> lines = {
        {"--json"},
        {"--json", "servce"},
        {"service", "--json"},
        {"service", "show", "--json", "--timeout"},
        {"service", "show", "\xff\xfe", "--json"},
        {"--json", "service", "set", "ssh", "\"\n\\"},
    };
    for (const auto& line : lines) {
        const Result result = quillsec(line);
        const auto document = nlohmann::json::parse(result.out);
        EXPECT_EQ(result.exit, document.at("error").at("exit_code"));
        EXPECT_TRUE(document.at("error").at("status").is_null());
        EXPECT_EQ("", result.err);
    }
}

TEST_F(Program, ReportsOutputThatCannotBeWritten) {
    const int saved = dup(STDOUT_FILENO);
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    const std::vector<const char*> show = {"service", "show"};
    const std::vector<const char*> misspelled = {"service", "show", "telnett", "--json"};
    testing::internal::CaptureStderr();
    dup2(full, STDOUT_FILENO);
    const int shown = quill::cli::run(show);
    const int refused = quill::cli::run(misspelled);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    close(full);
    EXPECT_EQ(
        "quillsec: standard output cannot be written: no space left on device; "
        "a change that was asked for has been made\n"
        "quillsec: service 'telnett' does not exist; did you mean 'telnet'?\n",
        testing::internal::GetCapturedStderr());
    EXPECT_EQ(1, shown);
    EXPECT_EQ(3, refused);
}
}  // namespace
