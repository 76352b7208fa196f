// Messages with files that hold up whoever closes them.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

// A TCP socket that whoever closes it waits for: it lingers, and nobody takes what it has to send.
inline int lingering_socket() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int small = 4096;
    setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(made, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    EXPECT_TRUE(bind(listener, any, size) == 0 && listen(listener, 1) == 0 &&
                getsockname(listener, any, &size) == 0 && connect(made, any, size) == 0)
        << strerror(errno);
    const std::string bytes(65536, 'x');
    while (send(made, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) continue;
    const linger long_time{1, 600};
    EXPECT_EQ(0, setsockopt(made, SOL_SOCKET, SO_LINGER, &long_time, sizeof long_time));
    return made;  // the listener stays open, and so does the connection
}

// Sends the bytes and the file, which is the receiver's alone then.
inline bool pass(int socket, const std::string& bytes, int file) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof file)] = {};
    iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof file);
    memcpy(CMSG_DATA(head), &file, sizeof file);
    // One that stays with us is left to the end of the process, which waits for nothing.
    return sendmsg(socket, &message, MSG_NOSIGNAL) >= 0 && close(file) == 0;
}

// In ways that differ in where the file lies when the daemon looks at the connection. The requests before it
// keep the daemon busy until the file is its alone.
inline bool pass_in_some_way(const std::string& request, int socket, int way) {
    for (int i = 0; i < (way == 1 ? 8 : 0); ++i) send(socket, request.data(), request.size(), MSG_NOSIGNAL);
    if (way == 2) send(socket, "", 0, MSG_NOSIGNAL);  // looks like the end of the connection
    if (way != 3) return pass(socket, way == 0 ? request : "", lingering_socket());
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, ends));
    EXPECT_TRUE(pass(ends[0], "", lingering_socket()));
    close(ends[0]);
    return pass(socket, "x", ends[1]);
}

// Signals end the wait for a file that the daemon has dropped before this process did.
inline void outlive_own_files() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 20000}, {0, 20000}};
    setitimer(ITIMER_REAL, &often, nullptr);
}
