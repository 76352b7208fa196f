// Key files of every format, made and checked with the common tools.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "tests/fakes/library_test.h"
#include "tests/support/box.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kConvert = 0x404a0027, kFormat = 0x404a0028, kOpen = 0x404a0029, kType = 0x404a002a;
constexpr const char* kFixedNames[] = {"/tmp/tmpkey.pub", "/tmp/outkey.pub", "/tmp/errkey.pub"};

// One key of each type, and certificates of public keys that fill a line and exceed it by one byte: a modulus
// of 1536 bytes with exponents of 16 and 17.
constexpr char kMakeKeys[] = R"(
mkdir -p /tmp/keys && cd /tmp/keys && exec 2>/dev/null
for t in rsa dsa ecdsa ed25519; do ssh-keygen -qt $t -N '' -C "a $t key" -f $t; ssh-keygen -ef $t.pub >$t.ssh2; done
openssl dsaparam -out parameters 1024
certificate() { openssl req -x509 -nodes -subj /CN=a -keyout $1.key -out $1 -newkey $2 $3 $4; }
for bits in 1024 2048 4096; do certificate c$bits rsa:$bits; done
certificate cdsa dsa:parameters; certificate cec ec -pkeyopt ec_paramgen_curve:P-256
zeros() { head -c $1 /dev/zero | tr '\0' 0; }
for size in 16 17; do
    printf 'asn1=SEQUENCE:k\n[k]\nn=INTEGER:0xc%s1\ne=INTEGER:0x7%s1\n' $(zeros 3070) $(zeros $((size * 2 - 2))) >k
    openssl asn1parse -genconf k -out k.der -noout
    openssl rsa -RSAPublicKey_in -inform DER -in k.der -pubout -out k.pem
    openssl x509 -new -subj /CN=a -force_pubkey k.pem -key cec.key -out c_e$size
done
)";

// The output of a command in the directory of the keys.
std::string shell(const std::string& command) {
    std::string printed;
    FILE* pipe = popen(("cd /tmp/keys;" + command).c_str(), "r");
    char bytes[4096];
    for (size_t got; (got = fread(bytes, 1, sizeof bytes, pipe)) != 0;) printed.append(bytes, got);
    EXPECT_EQ(0, pclose(pipe)) << command;
    return printed;
}

std::string file(const std::string& name, const std::string& bytes) {
    write_file("/tmp/keys/" + name, bytes);
    return "/tmp/keys/" + name;
}

class KeyFiles : public LibraryTest {
 protected:
    static void SetUpTestSuite() { ASSERT_EQ(0, system(kMakeKeys)); }
    void TearDown() override {
        for (const char* name : kFixedNames) EXPECT_FALSE(fs::exists(fs::symlink_status(name))) << name;
    }
};

struct Taken {
    ssh_key_rec record{};
    ssh_key_new_rec new_record{};
    uint8_t format = 99;
    uint32_t status = 0;

    explicit Taken(const std::string& path, const std::string& user = "amy")
        : status(copy_sshkey_file_content(path.c_str(), user.c_str(), &record, &new_record, &format)) {}

    bool nothing() const {
        return bytes_of(record) == bytes_of(ssh_key_rec{}) &&
               bytes_of(new_record) == bytes_of(ssh_key_new_rec{});
    }
};

struct Converted {
    ssh_key_new_rec from{};
    ssh_key_rec to{};
    uint32_t status;

    Converted(uint8_t format, const std::string& text) {
        strcpy(from.user_name, "amy");
        text.copy(from.key_text, sizeof from.key_text);
        from.key_format = format;
        strcpy(to.key_text, "before");
        status = convert_other_ssh_key_to_openssh(&from, &to);
    }
};

uint32_t check(const std::string& path) {
    uint8_t format = 99;
    const uint32_t status = sshkey_check_type(path.c_str(), &format);
    return status == 0 ? format : status;
}

int lowest_descriptor() {
    const int lowest = dup(0);
    close(lowest);
    return lowest;
}

// The format of a file, the text read from it, and its line, which must be the one that OpenSSH writes.
TEST_F(KeyFiles, FormatsAreDetectedReadAndConverted) {
    const struct {
        const char* make;
        uint32_t code;
        const char* taken = nullptr;  // null: refused, with nothing in a record
        const char* line = nullptr;   // null: none
    } cases[] = {
        {"cat rsa.pub; echo more", 0, "cat rsa.pub"},
        {"cat dsa.pub", 0, "cat dsa.pub"},
        {"cat ecdsa.pub", 0, "cat ecdsa.pub"},
        {"cut -d' ' -f1,2 ed25519.pub", 0, "cut -d' ' -f1,2 ed25519.pub"},
        {"sed 's/$/\\r/' ed25519.pub", 0, "sed 's/$/\\r/' ed25519.pub"},
        {"echo; cat rsa.pub", 0, "echo"},  // not a key; the client refuses it
        {"cat rsa.ssh2; echo more", 1, "cat rsa.ssh2", "cut -d' ' -f1,2 rsa.pub"},
        {"cat ecdsa.ssh2", 1, "cat ecdsa.ssh2", "cut -d' ' -f1,2 ecdsa.pub"},
        {"sed 's/$/\\r/' ed25519.ssh2", 1, "sed 's/$/\\r/' ed25519.ssh2", "cut -d' ' -f1,2 ed25519.pub"},
        // A file with a first line of 73 characters is imported; with a longer one it is not.
        {"printf 'Subject: %063d\\n' 0; cat dsa.ssh2", 1, "printf 'Subject: %063d\\n' 0; cat dsa.ssh2",
         "cut -d' ' -f1,2 dsa.pub"},
        {"printf 'Subject: %064d\\n' 0; cat dsa.ssh2", 4},
        {"cat c1024; echo more", 2, "cat c1024", "ssh-keygen -yf c1024.key | tr -d '\\n'"},
        {"echo text; cat c2048", 2, "echo text; cat c2048", "ssh-keygen -yf c2048.key | tr -d '\\n'"},
        {"cat c4096", 2, "cat c4096", "ssh-keygen -yf c4096.key | tr -d '\\n'"},
        {"cat cdsa", 2, "cat cdsa", "ssh-keygen -yf cdsa.key | tr -d '\\n'"},
        {"cat cec", 2, "cat cec"},
        {"cat c_e16", 2, "cat c_e16", "ssh-keygen -if k16.pem -m PKCS8 | tr -d '\\n'"},
        {"cat c_e17", 2, "cat c_e17"},
        {"printf 'x509v3-sign-rsa A\\nB\\n'", 3, "printf 'x509v3-sign-rsa A\\nB\\n'",
         "printf 'x509v3-sign-rsa A\\nB'"},
        {"printf 'x509v3-sign-rsa A\\0 hidden'", 3},
        {"printf 'x509v3-sign-rsa\\nAAAA'", 4},
        // Private keys in OpenSSH, PEM, PKCS#8, SSH2 and SSH1 format, alone and among other texts.
        {"cat rsa", 4},
        {"openssl rsa -in c2048.key -traditional 2>&-", 4},
        {"cat c2048.key", 4},
        {"openssl pkcs8 -topk8 -in c2048.key -passout pass:x", 4},
        {"openssl ec -in cec.key 2>&-", 4},
        {"echo '---- BEGIN SSH2 ENCRYPTED PRIVATE KEY ----'", 4},
        {"echo '--------- BEGIN SSH2 ENCRYPTED PRIVATE KEY ----'; echo AAAA", 4},
        {"sed '2s/.*/Comment: ---- BEGIN SSH2 ENCRYPTED PRIVATE KEY ----/' rsa.ssh2", 4},
        {"cat rsa.pub; echo 'x: ---- BEGIN SSH2 ENCRYPTED PRIVATE KEY ----'", 0},
        {"(cat rsa.pub; head -c 4086 /dev/zero | tr '\\0' x) | head -c 4086; cat rsa",
         0},  // across a buffer's end
        {"echo 'SSH PRIVATE KEY FILE FORMAT 1.1'", 4},
        {"cat c2048.key c2048", 2},
        {"cat c2048 c2048.key", 2},
        {"cat rsa.pub rsa", 0},
        {"echo 'x509v3-sign-rsa AAAA'; cat c2048.key", 3},
        // Not keys.
        {"true", 4},
        {"printf '\\0\\1\\2\\377'", 4},
        {"head -c 100000 /dev/zero | tr '\\0' x", 4},
        {"echo '-----BEGIN CERTIFICATE-----'; echo junk", 4},
    };
    shell("openssl x509 -in c_e16 -noout -pubkey >k16.pem");
    for (const auto& c : cases) {
        const std::string path = file("key", shell(c.make));
        const int before = lowest_descriptor();
        EXPECT_EQ(c.code, check(path)) << c.make;
        EXPECT_EQ(c.code == 2, before != lowest_descriptor()) << "a certificate's file is left open";
        const Taken taken(path);
        EXPECT_EQ(c.taken ? 0 : kFormat, taken.status) << c.make;
        EXPECT_EQ(!c.taken, taken.nothing()) << c.make;
        if (!c.taken) continue;
        const bool one_line = c.code == 0;
        EXPECT_STREQ("amy", one_line ? taken.record.user_name : taken.new_record.user_name) << c.make;
        EXPECT_EQ(c.code, taken.new_record.key_format) << c.make;
        const std::string text = one_line ? taken.record.key_text : taken.new_record.key_text;
        EXPECT_EQ(shell(c.taken), text) << c.make;
        if (one_line) continue;
        const Converted converted(taken.format, text);
        EXPECT_EQ(c.line ? 0 : kConvert, converted.status) << c.make;
        EXPECT_EQ(c.line ? shell(c.line) : "before", converted.to.key_text) << c.make;
        EXPECT_STREQ(c.line ? "amy" : "", converted.to.user_name);
    }
}

TEST_F(KeyFiles, LeftoversAndLinksOfOthersChangeNothing) {
    const std::string victim = file("victim", "kept"), empty = file("empty", "");
    const std::string key = shell("cat ed25519.ssh2"), line = shell("cut -d' ' -f1,2 ed25519.pub");
    for (const bool link : {false, true}) {
        const auto plant = [&] {
            for (const char* name : kFixedNames)
                if (link)
                    EXPECT_EQ(0, symlink(victim.c_str(), name));
                else
                    write_file(name, "ssh-rsa AAAA left over, and longer than what is printed today\n", 0777);
        };
        plant();
        EXPECT_EQ(4u, check(empty)) << "a leftover passed for an import";
        EXPECT_EQ(0, unlink(kFixedNames[0]));
        plant();
        EXPECT_EQ(line, Converted(1, key).to.key_text);
        EXPECT_EQ("kept", read_file(victim));
    }
    // Files that cannot be replaced keep ssh-keygen from running.
    for (const char* name : kFixedNames) fs::create_directory(name);
    EXPECT_EQ(kType, check(empty));
    EXPECT_EQ(kConvert, Converted(1, key).status);
    EXPECT_EQ(kConvert, Converted(2, shell("cat c1024")).status);
    for (const char* name : kFixedNames) fs::remove(name);
}

TEST_F(KeyFiles, OnlyPlainPathsReachTheShell) {
    const std::string line = shell("cat ed25519.pub");
    const std::string longest(62 - strlen("/tmp/keys/"), 'n');
    const std::pair<std::string, uint32_t> cases[] = {
        {longest, 0},    {longest + "n", kOpen}, {"a b", kOpen},         {"a;id", kOpen}, {"$(id)", kOpen},
        {"`id`", kOpen}, {"a#03#.pub~", 0},      {"a\nb", kOpen},        {"a*", kOpen},   {"a'b", kOpen},
        {"-l", 0},       {"\xc3\xa4", kOpen},    {"a%s+b=c,d:e@f_g", 0},
    };
    for (const auto& [name, want] : cases) EXPECT_EQ(want, check(file(name, line))) << name;
    EXPECT_EQ(0, mkfifo("/tmp/keys/pipe", 0600));
    fs::current_path("/tmp/keys");
    for (const char* name : {"-", "#a", "~a"}) file(name, line);
    for (const char* path :
         {"", "-", "#a", "~a", "/tmp/keys/missing", "/tmp/keys", "/tmp/keys/pipe", "/dev/zero"})
        EXPECT_EQ(kOpen, check(path));
    EXPECT_EQ(1u, sshkey_is_empty_stdout("/dev/null"));
}

TEST_F(KeyFiles, FieldsAreNeverOverrun) {
    for (const size_t length : {8191, 8192, 20000}) {
        const Taken taken(file("key", "x509v3-sign-rsa " + std::string(length - 16, 'x')));
        EXPECT_EQ(length < 8192 ? 0 : kFormat, taken.status) << length;
        EXPECT_EQ(length < 8192 ? length : 0, strlen(taken.new_record.key_text));
        EXPECT_EQ(length >= 8192, taken.nothing());
    }
    for (const size_t length : {2199, 2200}) {  // a newline at the end is not counted, and removed
        const std::string text(length, 'x');
        const Converted converted(3, text + "\n");
        EXPECT_EQ(length == 2199 ? 0 : kConvert, converted.status);
        EXPECT_EQ(length == 2199 ? text : "before", converted.to.key_text);
        EXPECT_EQ(length == 2199 ? text : text + "\n", converted.from.key_text);
    }
    // A one-line key is cut; a user name is not.
    const std::string line = shell("cat ed25519.pub | tr -d '\\n'") + std::string(3000, 'c');
    EXPECT_EQ(line.substr(0, 2099), Taken(file("key", line)).record.key_text);
    EXPECT_EQ(0u, Taken("/tmp/keys/rsa.pub", std::string(127, 'n')).status);
    const Taken unnamed("/tmp/keys/rsa.pub", std::string(128, 'n'));
    EXPECT_EQ(0x404a0104u, unnamed.status);
    EXPECT_TRUE(unnamed.nothing());
}

// A regular file that can be opened, but not read from its start.
TEST_F(KeyFiles, AFailingReadIsNoEndOfTheFile) {
    constexpr char kUnreadable[] = "/proc/self/mem";
    const Taken taken(kUnreadable);
    EXPECT_EQ(kFormat, taken.status);
    ssh_key_new_rec record{};
    EXPECT_EQ(0x404a002bu, sshkey_new_copy_file_content(kUnreadable, "amy", 3, &record));
    EXPECT_STREQ("", record.user_name);
}

TEST_F(KeyFiles, WhatIsNoKeyOfItsFormatIsNotConverted) {
    EXPECT_EQ(kConvert, convert_other_ssh_key_to_openssh(nullptr, nullptr));
    const std::string no_end(8192, 'x'),
        junk = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
    // Only the text shows that ssh-keygen imported nothing.
    const std::tuple<uint8_t, std::string, uint32_t> cases[] = {{0, "ssh-rsa AAAA", kConvert},
                                                                {4, "ssh-rsa AAAA", kFormat},
                                                                {2, "", kConvert},
                                                                {2, junk, kConvert},
                                                                {1, no_end, kConvert},
                                                                {3, no_end, kConvert},
                                                                {2, shell("cat cec.key c2048"), kFormat},
                                                                {1, "no key", 0}};
    for (const auto& [format, text, want] : cases) {
        const Converted converted(format, text);
        EXPECT_EQ(want, converted.status) << text.substr(0, 40);
        EXPECT_STREQ("before", converted.to.key_text) << text.substr(0, 40);
    }
}

// Listings of ssh-keygen for a key of this path, of all its versions.
TEST_F(KeyFiles, ListingsArePublicOrNot) {
    const std::string key = file("key", "ssh-rsa AAAA\n");
    const std::pair<std::string, uint32_t> cases[] = {{"1 aa " + key + " (RSA)\n", 1},
                                                      {"1 aa " + key + " (DSA)\n", 1},
                                                      {"1 aa " + key + " (RSA1)\n", 0},
                                                      {"1 aa " + key + "\n", 1},
                                                      {"1 SHA256:x none (ED25519)\n", 1},
                                                      {key + " is not a public key file.\n", 0},
                                                      {"", 0},
                                                      {std::string(10000, 'x'), 1}};
    for (const auto& [listing, want] : cases) {
        const std::string out = file("out", listing);
        EXPECT_EQ(want, sshkey_is_public_stdout(out.c_str(), key.c_str())) << listing;
        EXPECT_EQ(listing.empty() ? 1u : 0u, sshkey_is_empty_stdout(out.c_str()));
    }
    EXPECT_EQ(kOpen, sshkey_is_public_stdout(key.c_str(), "/missing"));
    EXPECT_EQ(kOpen, sshkey_is_public_stdout("/missing", key.c_str()));
    EXPECT_EQ(kOpen, sshkey_is_empty_stdout("/missing"));
}

// ---- Sending to the daemon

struct Send {
    char path[256] = {};
    uint32_t status;

    explicit Send(const std::string& given, int32_t location = -1) {
        world().requests.clear();
        given.copy(path, sizeof path - 1);
        status = security_sshkey_send(path, "amy", location, SET_REQ, 5);
    }
};

TEST_F(KeyFiles, AreSentFromTheirDevice) {
    const struct {
        int32_t location;
        const char *context, *whole_path, *rewritten, *key;
    } cases[] = {
        {8, nullptr, "/bootflash/keys/a", "/keys/a", "rsa.pub"},
        {8, "1", "/bootflash/keys/a", "/keys/a", "rsa.ssh2"},
        {8, "3", "/bootflash/vdc_3/keys/a", "/vdc_3/keys/a", "rsa.pub"},
        {256, "12", "/volatile/vdc_12/keys/a", "/vdc_12/keys/a", "c2048"},
        {8, "4294967297", "/bootflash/vdc_2147483647/keys/a", "/vdc_2147483647/keys/a", "rsa.pub"},
        {16, "", "/slot0/vdc_0/keys/a", "/vdc_0/keys/a", "dsa.pub"},
    };
    world().reply = {.status = 0x40480011};
    for (const auto& c : cases) {
        const std::string text = shell(std::string("cat ") + c.key);
        fs::create_directories(fs::path(c.whole_path).parent_path());
        write_file(c.whole_path, text);
        if (c.context) setenv("SYSMGR_VDC_ID", c.context, 1);
        const Send send("/keys/a", c.location);
        unsetenv("SYSMGR_VDC_ID");
        EXPECT_EQ(0x40480011u, send.status) << c.whole_path;
        EXPECT_STREQ(c.rewritten, send.path);
        EXPECT_EQ(0, unlink(c.whole_path)) << "not deleted";
        const Sent& sent = world().requests.at(0);
        EXPECT_EQ(std::tuple(170, 3u, 5u), std::tuple(sent.type, sent.operation, sent.connection));
        EXPECT_EQ(strstr(c.key, ".pub") ? 2328u : 8321u, sent.record.size());
        EXPECT_EQ(text, sent.record.substr(128, text.size()));
    }
    EXPECT_EQ(0x404a002cu, Send("/keys/a", 9).status);
    EXPECT_EQ("Security URI unknown type: 9", world().traces.back());
    EXPECT_EQ(kOpen, Send(std::string(255, '/'), 8).status);
}

TEST_F(KeyFiles, ATemporaryFileIsAlwaysDeleted) {
    const std::tuple<const char*, size_t, uint32_t> cases[] = {
        {"cat rsa.pub", 1, 0}, {"cat rsa", 1, kFormat}, {"true", 1, kFormat}, {"cat rsa.pub", 80, kOpen}};
    for (const auto& [make, length, want] : cases) {
        const std::string path = file(std::string(length, 't'), shell(make));
        EXPECT_EQ(want, Send(path).status) << make;
        EXPECT_FALSE(fs::exists(path)) << make;
        EXPECT_EQ(want == 0, world().requests.size() == 1) << make;
    }
}

}  // namespace
