// Servers of the request channel for tests: the daemon's, with handlers of the test, and a scripted one.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "platform/channel/server.h"
#include "tests/support/box.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"

// Returns a reply with a text as its record.
inline quill::Answer answer_text(quill::Request& request, const std::string& text) {
    memcpy(request.record, text.data(), text.size());
    return {0, static_cast<uint32_t>(text.size()), false};
}

// Runs quill::Server in a process of its own until the destructor. `prepare` may add to its event loop.
class ServerProcess {
 public:
    explicit ServerProcess(
        std::function<quill::Answer(const quill::Peer&, quill::Request&)> answer, gid_t administrators = 0,
        const std::function<void(quill::Server&)>& prepare = [](quill::Server&) {}) {
        mkdir(getenv("QUILL_RUNTIME_DIR"), 0755);
        int ends[2];
        if (pipe(ends) != 0) return;
        pid_ = start_child([&] {
            quill::Server server({administrators,
                                  [&](const quill::Peer& peer, quill::ConnectionState&,
                                      quill::Request& request) { return answer(peer, request); },
                                  [] { return true; }, [] {}});
            prepare(server);
            if (!server.listen() || write(ends[1], "", 1) != 1) _exit(2);
            close(ends[1]);
            server.run();
        });
        close(ends[1]);
        char ready;
        EXPECT_EQ(1, read(ends[0], &ready, 1)) << "the server does not listen";
        close(ends[0]);
    }
    ~ServerProcess() {
        if (pid_ < 0) return;
        EXPECT_EQ(0, end(SIGTERM)) << "the server's exit code";
    }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    int end(int signal) {
        kill(pid_, signal);
        return join();
    }
    int join() {
        const int status = wait_for(pid_);
        pid_ = -1;
        return status;
    }

 private:
    pid_t pid_ = -1;
};

// A thread that listens at the daemon's socket and runs the script for one connection after the other.
// `backlog` is that of listen(2).
class ScriptedServer {
 public:
    explicit ScriptedServer(std::function<void(int connection)> script, int backlog = 5) {
        mkdir(getenv("QUILL_RUNTIME_DIR"), 0755);
        const std::string path = std::string(getenv("QUILL_RUNTIME_DIR")) + "/quillsecurityd.sock";
        unlink(path.c_str());
        listener_ = bound_socket(SOCK_SEQPACKET, path);
        listen(listener_, backlog);
        thread_ = std::thread([this, script] {
            while ((connection_ = accept(listener_, nullptr, nullptr)) >= 0) {
                script(connection_);
                close(connection_.exchange(-1));
            }
        });
    }
    ~ScriptedServer() {
        shutdown(listener_, SHUT_RDWR);
        shutdown(connection_, SHUT_RDWR);  // the client keeps its end
        thread_.join();
        close(listener_);
    }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

 private:
    int listener_ = -1;
    std::atomic<int> connection_ = -1;
    std::thread thread_;
};
