// Runs in the sandbox, which has the directories of the devices.
#include <cstdlib>
#include <filesystem>

#include "tests/fakes/library_test.h"
#include "tests/support/box.h"

namespace {

namespace fs = std::filesystem;
using WebRequests = LibraryTest;

constexpr char kFile[] = "/tmp/given.pem";

struct Path {
    char text[256] = {};
    explicit Path(const std::string& path) { path.copy(text, sizeof text - 1); }
};

// The expected request: item and enable in host order.
std::string cert_record(uint32_t item, const std::string& text, uint32_t enable = 0) {
    nginx_cert_rec record{item, {}, enable};
    text.copy(record.text, sizeof record.text - 1);
    return bytes_of(record);
}

std::string lines(size_t count, size_t length) {
    std::string text;
    while (count-- > 0) text += std::string(length - 1, 'x') + "\n";
    return text;
}

// A whole line buffer must fit behind the text. It has 120 bytes, more for a longer line.
TEST_F(WebRequests, FilesBecomeTexts) {
    const std::string nul(1, '\0'), pem = "-----BEGIN-----\n" + lines(20, 65) + "-----END-----\n";
    const std::string too_big = "too big", brink = lines(20, 98) + lines(1, 19);  // 1979 bytes
    const std::pair<std::string, std::string> cases[] = {
        {pem, pem},
        {"", ""},
        {"a\nb", "a\nb"},
        {"100%\n%%x%%%s%n%", "100%\n%x%%s%n%"},
        {"ab" + nul + "cd\nef\n" + nul + "\n", "abef\n"},
        {brink + "y", brink + "y"},
        {brink + "y\nz", too_big},
        {lines(20, 99) + "\n", too_big},
        {std::string(3000, 'x'), too_big},
    };
    for (const auto& [file, text] : cases) {
        world() = World();
        world().reply.status = 0x404a0106;  // the channel's status is returned
        write_file(kFile, file);
        Path path(kFile);
        const bool refused = text == too_big;
        EXPECT_EQ(refused ? 0x404a0048 : 0x404a0106, security_nginx_https_send(path.text, -1, 1, 42)) << file;
        EXPECT_FALSE(fs::exists(kFile)) << file;
        const Texts reasons = {"Cert exceeds max size. Use encoded certificate",
                               "Prepare security file failed"};
        EXPECT_EQ(refused ? reasons : Texts(), world().traces);
        ASSERT_EQ(refused ? 0u : 1u, world().requests.size()) << file;
        if (refused) continue;
        const Sent& sent = world().requests[0];
        EXPECT_TRUE(sent.one_way && sent.type == 283650 && sent.operation == 3 && sent.connection == 42);
        EXPECT_EQ(cert_record(1, text), sent.record) << file;
    }
}

TEST_F(WebRequests, FilesLieOnDevicesAndInContexts) {
    const struct {
        int32_t location;
        const char* context;
        std::string file, path_after;
        uint32_t want;
    } cases[] = {
        {8, nullptr, "/bootflash/w/c.pem", "/w/c.pem", 0},
        {256, "1", "/volatile/w/c.pem", "/w/c.pem", 0},
        {16, "3", "/slot0/vdc_3/w/c.pem", "/vdc_3/w/c.pem", 0},
        {8, "12x", "/bootflash/vdc_12/w/c.pem", "/vdc_12/w/c.pem", 0},
        {9, "3", "/bootflash/x", "/w/c.pem", 0x404a002c},
        {-1, "3", "/bootflash/x", "/w/c.pem", 0x404a002b},  // a path from the root that does not exist
    };
    unsetenv("SYSMGR_VDC_ID");
    for (const auto& c : cases) {
        world() = World();
        if (c.context != nullptr) setenv("SYSMGR_VDC_ID", c.context, 1);
        fs::create_directories(fs::path(c.file).parent_path());
        write_file(c.file, c.file);
        Path path("/w/c.pem");
        EXPECT_EQ(c.want, security_nginx_https_send(path.text, c.location, 7, 0)) << c.location;
        EXPECT_EQ(c.path_after, path.text);
        EXPECT_TRUE(fs::exists(c.file));
        ASSERT_EQ(c.want == 0 ? 1 : 0, world().requests.size());
        if (c.want == 0) {
            EXPECT_EQ(cert_record(7, c.file), world().requests[0].record);
        }
        if (c.location == 9) {
            EXPECT_EQ(Texts{"Security URI unknown type: 9"}, world().traces);
        }
    }
    EXPECT_EQ((Texts{"File /w/c.pem read error", "Prepare security file failed"}), world().traces);
    // A path without room for the context's directory is cut.
    Path path(std::string(255, '/'));
    EXPECT_EQ(0x404a002bu, security_nginx_https_send(path.text, 8, 0, 0));
    EXPECT_EQ("/vdc_3" + std::string(249, '/'), path.text);
    nginx_cert_rec record;
    EXPECT_EQ(0x404a002bu, copy_nginx_file_content("/tmp", &record, 1));  // can be opened, but not read
}

TEST_F(WebRequests, EnableAndPorts) {
    world().replies[0].status = -1;
    EXPECT_EQ(0xffffffffu, security_nginx_cert_enable(5));
    EXPECT_EQ(0u, cmi_security_nginx_configure(6, 0x0102, 0x0304, 0x0506));
    const auto& [enable, ports] = std::pair(world().requests.at(0), world().requests.at(1));
    EXPECT_EQ(cert_record(0, "", 1), enable.record);
    EXPECT_EQ(be32(0x0304) + be32(0x0506) + be32(0x0102), ports.record);
    EXPECT_TRUE(ports.one_way && ports.type == 283649 && ports.operation == 3 && ports.connection == 6);
}

}  // namespace
