// The message transport: a fan-out in a process of its own, and listeners.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "platform/channel/server.h"
#include "platform/mts/broadcast.h"
#include "quillplatform/mts.h"
#include "quillplatform/shell.h"
#include "tests/platform/server_process.h"

namespace {

constexpr uint32_t kOpcode = 173;

int shortages = 3;  // how often sending "scarce" fails for lack of memory

}  // namespace

extern "C" ssize_t sendmsg(int socket, const msghdr* message, int flags) {
    const iovec& last = message->msg_iov[message->msg_iovlen - 1];
    const bool scarce = last.iov_len == 6 && memcmp(last.iov_base, "scarce", 6) == 0;
    if (scarce && shortages > 0) {
        errno = shortages-- % 2 == 0 ? ENOMEM : ENOBUFS;
        return -1;
    }
    return syscall(SYS_sendmsg, socket, message, flags);
}

namespace {

uint32_t sender = 0;  // the fan-out's, in its process

quill::Answer send_on(const quill::Peer&, quill::Request& request) {
    const bool sent = mts_send(sender, MTS_THIS_NODE, request.type, request.operation, request.record,
                               request.length, 0, 0, 0) == 0;
    return {sent ? 0 : mts_errno_get(sender), 0, false};
}

// A fan-out that sends a message for each request: to service point `type`, with opcode `operation` and the
// record as payload. At service point 55 it replies itself, to 56.
ServerProcess fan_out(gid_t administrators = 0) {
    return ServerProcess(send_on, administrators, [=](quill::Server& server) {
        static quill::Broadcast broadcast(server.loop(), administrators, 1);
        sender = broadcast.handle();
        broadcast.serve(55, [](const void* message) {
            mts_send(sender, MTS_THIS_NODE, 56, mts_opc_get(message) + 1, mts_payload_get(message),
                     mts_payload_size(message), 0, 0, 0);
        });
        EXPECT_TRUE(broadcast.listen());
    });
}

int32_t send(const std::string& payload, uint32_t sap = 0, uint32_t opcode = kOpcode) {
    auto length = static_cast<uint32_t>(payload.size());
    return security_cmi2(static_cast<int32_t>(sap), opcode, const_cast<char*>(payload.data()), nullptr,
                         &length, 0);
}

struct Listener {
    uint32_t handle = 0;
    int error = 0;

    explicit Listener(uint32_t sap = 0, uint32_t opcode = MTS_ANY_OPCODE) {
        if (quill_mts_listen(sap, opcode, &handle) != 0) error = errno;
    }
    ~Listener() { quill_mts_close(handle); }

    // "opcode payload", or the errno's name.
    std::string next(int32_t milliseconds = 5000) {
        void* message = quill_mts_receive(handle, milliseconds);
        if (message == nullptr) return strerrorname_np(errno);
        const auto* payload = static_cast<const char*>(mts_payload_get(message));
        const uint32_t size = mts_payload_size(message);
        EXPECT_EQ(size == 0, payload == nullptr);
        std::string text = std::to_string(mts_opc_get(message)) + " ";
        if (size != 0) {
            text.append(payload, size);
            EXPECT_EQ(0, memcmp(payload + size, "\0\0\0\0", 4));
        }
        quill_mts_free(message);
        return text;
    }
};

class Transport : public testing::Test {
 protected:
    Transport() { security_cmi_timeout = 10; }
    Box box;
};

TEST_F(Transport, MessagesReachTheirListeners) {
    ServerProcess fanout = fan_out();
    Listener all, service(55), other(60), one_opcode(0, 7);
    EXPECT_EQ(0, send("to all"));
    EXPECT_EQ(0, send("", 0, 7));
    EXPECT_EQ(0, send("to 55", 55, 8));
    EXPECT_EQ(0, send("to 61", 61));
    const std::string longest(SECURITY_CMI_MAX_RECORD, 'x');
    EXPECT_EQ(0, send(longest, 0, 7));
    using Texts = std::vector<std::string>;
    const std::pair<Listener*, Texts> cases[] = {
        {&all, {"173 to all", "7 ", "7 " + longest}},
        {&service, {"173 to all", "7 ", "8 to 55", "7 " + longest}},
        {&other, {"173 to all", "7 ", "7 " + longest}},
        {&one_opcode, {"7 ", "7 " + longest}},
    };
    for (const auto& [listener, texts] : cases)
        for (const auto& text : texts) EXPECT_EQ(text, listener->next());
    EXPECT_EQ("ETIMEDOUT", all.next(1));
    EXPECT_EQ(0, send("scarce"));
    EXPECT_EQ(0, send("after it"));
    EXPECT_EQ("173 scarce", all.next());
    EXPECT_EQ("173 after it", all.next());
    // A service inside the process replies at another point.
    Listener answered(56, 9);
    EXPECT_EQ(0, send("again", 55, 8));
    EXPECT_EQ("9 again", answered.next());
    EXPECT_EQ(0, fanout.end(SIGTERM));
    EXPECT_EQ("ECONNRESET", all.next());
    EXPECT_EQ(ECONNREFUSED, Listener().error);
}

TEST_F(Transport, SendingThatFails) {
    const ServerProcess fanout = fan_out();
    const Listener listener;
    const uint32_t carrier = quill_mts_attach(
        [](void*, uint32_t sap, uint32_t, const void*, uint32_t) -> int32_t { return sap == 99 ? EXDEV : 0; },
        nullptr);
    const std::string longest(MTS_MAX_PAYLOAD + 1, 'x');
    const struct {
        uint32_t handle, node, sap, length;
        int want;
    } cases[] = {
        {listener.handle, MTS_THIS_NODE, 0, 1, EPERM},
        {4711, MTS_THIS_NODE, 0, 1, EBADF},
        {carrier, 1, 0, 1, EHOSTUNREACH},
        {carrier, MTS_THIS_NODE, 0, MTS_MAX_PAYLOAD + 1, EMSGSIZE},
        {carrier, MTS_THIS_NODE, 99, 1, EXDEV},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(-1, mts_send(c.handle, c.node, c.sap, kOpcode, longest.data(), c.length, 0, 0, 0));
        EXPECT_EQ(c.want, static_cast<int>(mts_errno_get(c.handle)));
    }
    EXPECT_EQ(0, mts_send(carrier, MTS_THIS_NODE, 0, 1, longest.data(), MTS_MAX_PAYLOAD, 0, 0, 0));
    quill_mts_close(carrier);
    EXPECT_EQ(-1, mts_send(carrier, MTS_THIS_NODE, 0, 1, "x", 1, 0, 0, 0));
}

// A listener that sends anything but one subscription is disconnected, and nothing of it reaches others.
TEST_F(Transport, ListenersCannotSpeak) {
    const ServerProcess fanout = fan_out();
    Listener listener;
    const std::string subscription = "QMTS" + word(2) + word(1) + word(0) + word(0);
    const std::vector<std::string> cases[] = {
        {""},
        {"garbage"},
        {subscription + "x"},
        {"QMTS" + word(1) + word(1) + word(0) + word(0)},
        {subscription, "QMTS" + word(2) + word(173) + word(0) + word(3) + "amy"},
        {subscription, subscription},
    };
    for (const auto& sent : cases) {
        const int socket = connect_to("quillsecurityd.mts");
        for (const auto& frame : sent) {
            EXPECT_EQ(12u, receive_message(socket).size()) << "a welcome";
            EXPECT_EQ(static_cast<ssize_t>(frame.size()), ::send(socket, frame.data(), frame.size(), 0));
        }
        EXPECT_EQ("", receive_message(socket)) << sent.back();
        close(socket);
    }
    EXPECT_EQ(0, send("still here"));
    EXPECT_EQ("173 still here", listener.next());
}

TEST_F(Transport, PlacesAreLimitedAndAdministratorsOnly) {
    constexpr gid_t kAdministrators = 4242;
    const ServerProcess fanout = fan_out(kAdministrators);
    std::vector<int> connections;
    for (int i = 0; i < 64; ++i) connections.push_back(connect_to("quillsecurityd.mts"));
    EXPECT_EQ(EUSERS, Listener().error);
    for (const int socket : connections) close(socket);
    EXPECT_EQ(0, send("wake the loop"));
    EXPECT_EQ(0, Listener().error);
    if (geteuid() != 0) GTEST_SKIP() << "not root";
    EXPECT_EQ(0, in_child([] {
                  become_nobody();
                  EXPECT_EQ(EACCES, Listener().error);
              }));
    EXPECT_EQ(0, in_child([] {
                  become_nobody(65534, {kAdministrators});
                  EXPECT_EQ(0, Listener().error);
              }));
}

}  // namespace
