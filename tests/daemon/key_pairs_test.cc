// Key pairs in real homes, made by the real ssh-keygen, through the daemon's own routes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>

#include "daemon/dispatch.h"
#include "quillsecurity.h"
#include "tests/support/box.h"

namespace {

struct Asked {
    ssh_key_cmd_rec record{};
    uint32_t status;

    Asked(uint32_t kind, uint32_t operation, uint32_t value = 0, const std::string& file = "",
          const std::string& user = "amy", bool administrator = true, const char* passphrase = "") {
        const auto type = kind >= 2 && kind <= 5 ? SECURITY_SSHKEY_TRANSFER_REQUEST : SECURITY_SSHKEY_REQUEST;
        memset(record.rest, '#', sizeof record.rest);
        record.kind = kind;
        record.value = value;
        user.copy(record.user_name, 127);
        strcpy(record.first_text, passphrase);
        file.copy(record.second_text, 255);
        security_conf_cmi_byteorder_convert(type, &record);
        quill::Request request{type,         operation, 0, "", reinterpret_cast<unsigned char*>(&record),
                               sizeof record};
        quill::ConnectionState state;
        status = quill::dispatch(quill::routes(), 0, {true, administrator, 1000, 1}, state, request).status;
        security_conf_cmi_byteorder_convert(type, &record);
    }

    void gives(uint32_t want, uint32_t bits, const char* what) const {
        EXPECT_EQ(want, status) << what;
        EXPECT_EQ(bits, record.value) << what;
    }
};

bool run(const char* script) { return system(script) == 0; }

class KeyPairs : public testing::Test {
 protected:
    void SetUp() override {
        if (getenv("QUILL_SANDBOX_SINGLE_USER") != nullptr) GTEST_SKIP() << "this box has one user";
    }
};

TEST_F(KeyPairs, AreMadeMovedAndDeletedByTheirOwner) {
    ASSERT_TRUE(run(
        "mkdir -p /bootflash/home; useradd -mb /bootflash/home amy && useradd -Mb /bootflash/home bob &&"
        "useradd -mb /bootflash/home ted && chown root /bootflash/home/ted && useradd -m other && useradd -md /bootflash/home/eve#02# eve#02# --badname 2>/dev/null &&"
        "install -d -m 1777 /tmp/k && cd /tmp/k && ssh-keygen -qt ed25519 -N '' -f x && cp x of_root &&"
        "ssh-keygen -qt rsa -N secret -f locked && ssh-keygen -qt rsa -m PEM -N '' -f rsa1 &&"
        "cat rsa1 rsa1 >two && cat rsa1 x.pub >around && sed '2i ssh-rsa AAAA mallory' rsa1 >inside &&"
        "ssh-keygen -qt rsa -N '' -C \"$(printf 'a\\nssh-rsa AAAA mallory')\" -f comment &&"
        "chown amy * && chown root of_root && echo junk >junk && mkfifo pipe &&"
        "(cat rsa1; head -c 65536 /dev/zero | tr '\\0' '\\n') >long"));
    const std::string ssh = "/bootflash/home/amy/.ssh/";
    const struct {
        const char* what;
        uint32_t kind, value;
        const char* file;
        uint32_t want;
        const char *user = "amy", *passphrase = "";
    } refused[] = {
        {"nobody", 1, 0, "", SECURITY_ERR_NO_USER, "nobody-here"},
        {"root", 1, 0, "", SECURITY_ERR_NO_USER, "root"},
        {"of the system", 1, 0, "", SECURITY_ERR_NO_USER, "daemon"},
        {"not made here", 1, 0, "", SECURITY_ERR_NO_USER, "other"},
        {"of another context", 1, 0, "", SECURITY_ERR_NO_USER, "eve#02#"},
        {"no home", 1, 0, "", SECURITY_ERR_NO_USER, "bob"},
        {"the home of another user", 1, 0, "", SECURITY_ERR_NO_USER, "ted"},
        {"too few bits", 1, 1023, "", SECURITY_ERR_NOT_SUPPORTED},
        {"too many bits", 1, 0xffffffff, "", SECURITY_ERR_NOT_SUPPORTED},
        {"another operation", 9, 0, "", SECURITY_ERR_NOT_SUPPORTED},
        {"another kind", 11, 0, "", SECURITY_ERR_NOT_SUPPORTED},
        {"a passphrase", 2, 0, "/tmp/k/locked", SECURITY_ERR_NOT_SUPPORTED, "amy", "secret"},
        {"locked", 2, 0, "/tmp/k/locked", SECURITY_ERR_SSHKEY_FORMAT},
        {"another type", 2, 0, "/tmp/k/x", SECURITY_ERR_SSHKEY_FORMAT},
        {"a public key", 2, 0, "/tmp/k/x.pub", SECURITY_ERR_SSHKEY_FORMAT},
        {"junk", 3, 0, "/tmp/k/junk", SECURITY_ERR_SSHKEY_FORMAT},
        {"two keys", 2, 0, "/tmp/k/two", SECURITY_ERR_SSHKEY_FORMAT},
        {"text in a key", 2, 0, "/tmp/k/inside", SECURITY_ERR_SSHKEY_FORMAT},
        {"root's", 3, 0, "/tmp/k/of_root", SECURITY_ERR_FILE_OPEN},
        {"a pipe", 3, 0, "/tmp/k/pipe", SECURITY_ERR_FILE_OPEN},
        {"too long", 2, 0, "/tmp/k/long", SECURITY_ERR_FILE_OPEN},
        {"not absolute", 3, 0, "k/x", SECURITY_ERR_FILE_OPEN},
    };
    Asked(9, GET_REQ).gives(SECURITY_OK, 0, "none");
    EXPECT_TRUE(run("[ ! -e /bootflash/home/amy/.ssh ]")) << "asking makes no folder";
    for (const auto& c : refused)
        Asked(c.kind, SET_REQ, c.value, c.file, c.user, true, c.passphrase).gives(c.want, c.value, c.what);
    EXPECT_EQ(SECURITY_ERR_NOT_PERMITTED, Asked(1, SET_REQ, 0, "", "amy", false).status);
    EXPECT_TRUE(files_in(ssh).empty());

    const struct {
        uint32_t make, import, export_to, erase, size;
        const char *name, *copy;
    } types[] = {{1, 2, 4, 7, 9, "id_rsa", "mine"}, {6, 3, 5, 8, 10, "id_dsa", "theirs"}};
    for (const auto& c : types) {
        Asked(c.size, GET_REQ, 5).gives(SECURITY_OK, 0, c.name);
        Asked(c.make, SET_REQ, 1024).gives(SECURITY_OK, 1024, c.name);
        Asked(c.make, SET_REQ).gives(SECURITY_ERR_KEY_PAIR_EXISTS, 0, c.name);
        const std::string path = ssh + c.name, copy = ssh + c.copy;
        const std::string key = read_file(path), public_key = read_file(path + ".pub");
        EXPECT_TRUE(run(("[ $(stat -c %U%a " + path + ") = amy600 ]").c_str()));
        Asked(c.export_to, SET_REQ, 0, c.copy).gives(SECURITY_OK, 1024, c.name);
        EXPECT_TRUE(run(("[ $(stat -c %U%a " + copy + ") = amy600 ]").c_str()));
        Asked(c.export_to, SET_REQ, 0, copy).gives(SECURITY_ERR_FILE_OPEN, 0, "in the way");
        Asked(c.import, SET_REQ, 0, copy).gives(SECURITY_ERR_KEY_PAIR_EXISTS, 0, c.name);
        Asked(c.erase, DEL_REQ).gives(SECURITY_OK, 0, c.name);
        Asked(c.erase, DEL_REQ).gives(SECURITY_ERR_NOT_FOUND, 0, c.name);
        Asked(c.export_to, SET_REQ, 0, "none").gives(SECURITY_ERR_NOT_FOUND, 0, c.name);
        Asked(c.import, SET_REQ, 0, copy).gives(SECURITY_OK, 1024, c.name);
        EXPECT_EQ(key + public_key, read_file(path) + read_file(path + ".pub"));
        EXPECT_EQ(key + public_key, read_file(copy) + read_file(copy + ".pub"));
    }
    const auto before = files_in(ssh);
    for (const char* place :
         {"/etc/copy", "/tmp/k/copy", "/bootflash/home/amy/.profile", "authorized_keys", "rc", "../.bashrc",
          "id_ed25519", "config", "environment", ".", "", "sub/key", "a b"})
        Asked(4, SET_REQ, 0, place).gives(SECURITY_ERR_FILE_OPEN, 0, place);
    Asked(4, SET_REQ, 0, ssh + "known_hosts").gives(SECURITY_ERR_FILE_OPEN, 0, "known_hosts");
    EXPECT_EQ(before, files_in(ssh));

    // Only the key is imported, without the text around it and without its comment.
    for (const char* file : {"around", "comment"}) {
        Asked(7, DEL_REQ).gives(SECURITY_OK, 0, file);
        Asked(2, SET_REQ, 0, std::string("/tmp/k/") + file).gives(SECURITY_OK, 3072, file);
        EXPECT_TRUE(run("! grep -e ssh-ed25519 -e mallory /bootflash/home/amy/.ssh/id_rsa*")) << file;
        EXPECT_TRUE(run("[ $(wc -l </bootflash/home/amy/.ssh/id_rsa.pub) = 1 ]")) << file;
    }
    EXPECT_TRUE(run("cd /bootflash/home/amy && mv .ssh keys && ln -s keys .ssh"));
    Asked(4, SET_REQ, 0, "linked").gives(SECURITY_ERR_NOT_FOUND, 0, "a link for a folder");
    EXPECT_TRUE(run("cd /bootflash/home/amy && rm .ssh && mv keys .ssh && cp -p .ssh/mine /tmp/k/rsa"));

    EXPECT_TRUE(
        run("cd /bootflash/home/amy/.ssh && rm id_rsa.pub && mkfifo id_rsa.pub && echo mine >id_rsa.new"));
    Asked(9, GET_REQ).gives(SECURITY_OK, 0, "a pipe for a public key");
    EXPECT_TRUE(
        run("cd /bootflash/home/amy/.ssh && rm id_rsa* && mkdir id_rsa.pub && echo mine >id_rsa.new"));
    Asked(1, SET_REQ, 1024).gives(SECURITY_ERR_KEY_PAIR, 1024, "no place for the public key");
    Asked(2, SET_REQ, 0, "/tmp/k/rsa").gives(SECURITY_ERR_KEY_PAIR, 0, "nor for an imported one's");
    EXPECT_TRUE(run("rmdir /bootflash/home/amy/.ssh/id_rsa.pub"));
    Asked(2, SET_REQ, 0, "/tmp/k/rsa").gives(SECURITY_OK, 1024, "no half of a pair is left");
    EXPECT_EQ("mine\n", read_file(ssh + "id_rsa.new"));
    EXPECT_TRUE(run("! ls -d /bootflash/home/amy/.ssh/new-*")) << "a draft is left";

    setenv("SYSMGR_VDC_ID", "2", 1);
    Asked(9, GET_REQ).gives(SECURITY_ERR_NO_USER, 0, "amy of context 1");
    EXPECT_TRUE(run("useradd --badname -mb /bootflash/home 'amy#02#'"));
    Asked(9, GET_REQ).gives(SECURITY_OK, 0, "amy of context 2 has none");
    unsetenv("SYSMGR_VDC_ID");
    Asked(9, GET_REQ, 0, "", "amy#02#").gives(SECURITY_ERR_NO_USER, 0, "by the stored name");
}

int loop[2];

// The daemon's handlers write to its loop, which a child shares.
TEST_F(KeyPairs, LetNobodySignalTheDaemon) {
    ASSERT_EQ(0, pipe2(loop, O_NONBLOCK));
    const auto handler = [](int) { static_cast<void>(!write(loop[1], "!", 1)); };
    for (const int number : {SIGTERM, SIGINT, SIGUSR1}) signal(number, handler);
    ASSERT_TRUE(
        run("useradd -mb /bootflash/home eve; (for i in $(seq 300); do pkill -TERM -u eve && exit; sleep "
            ".01; done) &"));
    Asked(1, SET_REQ, 4096, "", "eve");
    char byte;
    EXPECT_EQ(-1, read(loop[0], &byte, 1));
    for (const int number : {SIGTERM, SIGINT, SIGUSR1}) signal(number, SIG_DFL);
}

// A user who stops the processes that run with their rights does not block the daemon.
TEST_F(KeyPairs, DoNotWaitForAStoppedProcess) {
    ASSERT_TRUE(run("useradd -mb /bootflash/home sam; (until pkill -STOP -u sam; do :; done) &"));
    const auto start = std::chrono::steady_clock::now();
    Asked(1, SET_REQ, 4096, "", "sam").gives(SECURITY_ERR_KEY_PAIR, 4096, "stopped");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_TRUE(run("for i in $(seq 100); do pgrep -u sam || exit 0; sleep 0.02; done; exit 1"));
}

}  // namespace
