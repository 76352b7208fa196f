// The environment of the client: no files, no terminal, no programs to start, and a daemon with arbitrary
// replies. To be included by harnesses only: it defines these functions of the C library and of the platform.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz/accounts.h"
#include "fuzz/input.h"
#include "quillplatform.h"
#include "quillsecurity.h"
#include "tests/fakes/world.h"

inline constexpr char kTyped[] = "S3cr3t!";  // the beginning of standard input
inline constexpr int kMostRequests = 40;

inline bool running;
inline std::string standard_input, printed_output, printed_errors;
inline Input* replies;
inline int requests;

// Statuses of replies; success is more frequent than others.
inline constexpr uint32_t kStatuses[] = {SECURITY_OK,
                                         SECURITY_OK,
                                         SECURITY_OK,
                                         SECURITY_ERR_NOT_FOUND,
                                         SECURITY_ERR_NO_VALUE,
                                         SECURITY_ERR_END_OF_TABLE,
                                         SECURITY_ERR_CRYPT,
                                         SECURITY_ERR_NOT_PERMITTED,
                                         SECURITY_ERR_ACCOUNT_TOOL,
                                         SECURITY_PSS_NO_KEY,
                                         SECURITY_ERR_TRANSPORT | ETIMEDOUT,
                                         0x40480009,
                                         UINT32_MAX,
                                         12345};

inline int no_entry() {
    errno = ENOENT;
    return -1;
}

extern "C" {
pid_t fork() { return no_entry(); }
int mkdir(const char* path, mode_t mode) noexcept {
    return running ? no_entry() : static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path, mode));
}
char* mkdtemp(char*) noexcept { return nullptr; }
int unlink(const char* path) noexcept {
    return running ? no_entry() : static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}
int isatty(int) noexcept { return 0; }

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    return running ? no_entry() : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

FILE* fopen(const char* path, const char* mode) {
    if (running) return no_entry(), nullptr;
    const int flags = *mode == 'r' ? O_RDONLY : O_WRONLY | O_CREAT | (*mode == 'a' ? O_APPEND : O_TRUNC);
    const int descriptor = open(path, flags, 0666);
    return descriptor < 0 ? nullptr : fdopen(descriptor, mode);
}

ssize_t read(int descriptor, void* to, size_t length) {
    if (!running) return static_cast<ssize_t>(syscall(SYS_read, descriptor, to, length));
    require(descriptor == STDIN_FILENO || descriptor < 0);
    const size_t copied = descriptor < 0 ? 0 : standard_input.copy(static_cast<char*>(to), length);
    standard_input.erase(0, copied);
    return static_cast<ssize_t>(copied);
}

ssize_t write(int descriptor, const void* bytes, size_t length) {
    if (!running) return static_cast<ssize_t>(syscall(SYS_write, descriptor, bytes, length));
    require(descriptor == STDOUT_FILENO || descriptor == STDERR_FILENO);
    (descriptor == STDOUT_FILENO ? printed_output : printed_errors)
        .append(static_cast<const char*>(bytes), length);
    return static_cast<ssize_t>(length);
}
}

// Replies with the request's record, modified and possibly truncated.
int32_t security_cmi(int32_t, uint32_t, void* request, void** reply, uint32_t* length, uint32_t) {
    uint32_t status = kStatuses[replies->byte() % std::size(kStatuses)];
    if (++requests > kMostRequests) status = SECURITY_ERR_END_OF_TABLE;
    errno = ECONNREFUSED;
    const uint32_t size = *length;
    *length = 0;
    if (reply == nullptr || static_cast<int32_t>(status) < 0) return static_cast<int32_t>(status);
    const uint8_t kind = replies->byte();
    if (kind == 255) return static_cast<int32_t>(status);
    *length = kind == 254 ? size / 2 : size;
    *reply = malloc(*length);
    memcpy(*reply, request, *length);
    replies->patch({static_cast<uint8_t*>(*reply), *length});
    return static_cast<int32_t>(status);
}

int32_t security_cmi2(int32_t type, uint32_t operation, void* request, void**, uint32_t* length,
                      uint32_t connection) {
    return security_cmi(type, operation, request, nullptr, length, connection);
}

// Notifications: a few with arbitrary bytes, then the daemon exits.
int32_t quill_mts_listen(uint32_t, uint32_t, uint32_t*) {
    errno = EACCES;
    return replies->byte() % 4 == 3 ? -1 : 0;
}
void* quill_mts_receive(uint32_t, int32_t) {
    errno = ECONNRESET;
    if (replies->ended()) return nullptr;
    return new FakeMessage{SECURITY_MTS_USER_CHANGE, std::string(replies->bytes(replies->byte()))};
}
uint32_t quill_mts_lost(const void*) { return replies->byte(); }
void quill_mts_free(void* message) { delete static_cast<FakeMessage*>(message); }
void quill_mts_close(uint32_t) {}

int32_t security_conf_system(const char*, const char*, const char*) { return -1; }

inline bool is_plain(const std::string& text) {
    return std::ranges::all_of(text, [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte == '\n' || (byte >= ' ' && byte != 0x7f);
    });
}

// One document, or one for each line.
inline bool is_json(const std::string& text) {
    if (nlohmann::json::accept(text)) return true;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = text.find('\n', start);
        if (end == text.npos || !nlohmann::json::accept(text.substr(start, end - start))) return false;
    }
    return !text.empty();
}

// Whether the secret is in the input, from which arguments and replies are taken.
inline bool is_known(const uint8_t* data, size_t size) {
    return std::string_view(reinterpret_cast<const char*>(data), size).find(kTyped) != std::string_view::npos;
}

// Calls `run`, which returns an exit code, with standard input and the daemon's replies as given, and checks
// its output.
template <class Run>
void check_run(std::string_view given, Input& from_daemon, bool json, bool secret_is_known, Run run) {
    static const int kQuiet = setlogmask(LOG_MASK(LOG_EMERG));
    static_cast<void>(kQuiet);
    world() = World();
    world().history = false;
    world().shadow = platform_shadow_entry{SECURITY_OK, "*", -1};
    world().roles = {"vdc-admin"};
    accounts() = FakeAccounts();
    accounts().by_name = {{"amy", {"*", 20000}}, {"bob", {}}, {"amy#02#", {}}};
    security_cmi_timeout = 60;
    standard_input = kTyped + std::string(given);
    replies = &from_daemon;
    requests = 0;
    printed_output.clear();
    printed_errors.clear();
    running = true;
    const int exit = run();
    running = false;
    require(exit >= 0 && exit <= 10 && (exit == 0 || !printed_output.empty() || !printed_errors.empty()));
    require(is_plain(printed_errors) &&
            (json ? is_json(printed_output) && printed_errors.empty() : is_plain(printed_output)));
    require(secret_is_known || (printed_output.find(kTyped) == printed_output.npos &&
                                printed_errors.find(kTyped) == printed_output.npos));
}
