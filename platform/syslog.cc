// The daemon's own syslog(3) and openlog(3). The functions of the C library wait for the reader of the log
// socket or of standard error, so a reader that stopped would stop the daemon.
//
// Lines have the usual form (RFC 3164) and go to /dev/log. Lines that the reader has no room for are queued,
// up to a limit, and sent later (platform/log.h); beyond the limit they are dropped, and their number is
// logged. All libraries of the process use these functions. They are for one thread; a child process starts
// with an empty queue.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <new>
#include <string>

#include "base/descriptor.h"
#include "platform/log.h"

namespace quill {
namespace {

constexpr size_t kLongestLine = 2048;        // below PIPE_BUF, so that a pipe takes all of it or nothing
constexpr size_t kMaxQueued = 256UL * 1024;  // bytes
constexpr int kClosingTime = 500;            // milliseconds in which closelog() sends the queue

enum class Sent { kYes, kLater, kNever };

// Whether a line is worth keeping after this error. Not after ENOENT: there is no reader to wait for.
bool may_succeed_later(int error) {
    return error == EAGAIN || error == ENOBUFS || error == ENOMEM || error == EMFILE || error == ENFILE ||
           error == ECONNREFUSED;
}

// The connection to the reader of the log, made again if that was restarted.
class Reader {
 public:
    Sent send(const std::string& line) {
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (!socket_ && !connect()) return may_succeed_later(errno) ? Sent::kLater : Sent::kNever;
            // In a stream a NUL ends the line.
            const size_t size = line.size() + (stream_ ? 1 : 0);
            const ssize_t sent = ::send(socket_.get(), line.c_str(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (sent == static_cast<ssize_t>(size)) return Sent::kYes;
            if (sent < 0 && errno != ECONNREFUSED && may_succeed_later(errno)) return Sent::kLater;
            socket_.reset();
        }
        return Sent::kNever;
    }
    void wait(int milliseconds) const {
        pollfd writable{socket_.get(), POLLOUT, 0};
        poll(&writable, 1, milliseconds);
    }
    void close() { socket_.reset(); }

 private:
    bool connect() {
        const sockaddr_un address{AF_UNIX, "/dev/log"};
        for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
            socket_.reset(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            stream_ = type == SOCK_STREAM;
            if (!socket_) return false;
            if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
                return true;
            const bool other_type = errno == EPROTOTYPE;
            socket_.reset();
            if (!other_type) return false;
        }
        return false;
    }

    Descriptor socket_;
    bool stream_ = false;
};

// Writes the part of the line that can be written without waiting.
void write_to_standard_error(const char* line, size_t size) {
    struct stat facts;
    if (fstat(STDERR_FILENO, &facts) != 0) return;
    if (S_ISSOCK(facts.st_mode)) {
        send(STDERR_FILENO, line, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        return;
    }
    // Opened again, since O_NONBLOCK would also apply to the other processes that share the descriptor.
    Descriptor own;
    if (S_ISFIFO(facts.st_mode) || S_ISCHR(facts.st_mode)) {
        own.reset(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        pollfd writable{STDERR_FILENO, POLLOUT, 0};
        if (!own && (errno == ENXIO || poll(&writable, 1, 0) <= 0))
            return;  // a full pipe, or one without a reader
    }
    if (write(own ? own.get() : STDERR_FILENO, line, size) < 0) return;  // nowhere to report it
}

class Log {
 public:
    void open(const char* name, int options, int facility) {
        name_ = name == nullptr ? program_invocation_short_name : name;
        options_ = options;
        facility_ = facility;
    }

    void write(int priority, const char* format, va_list arguments) {
        char text[kLongestLine - 100];  // without name and time
        const int length = vsnprintf(text, sizeof text, format, arguments);
        if (length < 0 || (LOG_MASK(LOG_PRI(priority)) & setlogmask(0)) == 0) return;
        if (client_log().muted) return;
        char* end = text + std::min(static_cast<size_t>(length), sizeof text - 1);
        while (end > text && end[-1] == '\n') --end;
        std::replace_if(
            text, end, [](unsigned char c) { return c < ' ' || c == 0x7f; }, '.');

        std::string line = name_.substr(0, 32);
        if ((options_ & LOG_PID) != 0) line.append("[").append(std::to_string(getpid())).append("]");
        line += ": ";
        line.append(text, end);
        if ((options_ & LOG_PERROR) != 0) write_to_standard_error((line + "\n").c_str(), line.size() + 1);
        send(stamp(priority) + line);
    }

    // Sends the queue. Returns false if some of it is left.
    bool flush() {
        clear_queue_of_parent();
        while (!queue_.empty()) {
            const Sent sent = reader_.send(queue_.front());
            if (sent == Sent::kLater) return false;
            bytes_ -= queue_.front().size();
            queue_.pop_front();
        }
        if (dropped_ == 0) return true;
        const std::string count = stamp(LOG_WARNING) + name_ + ": " + std::to_string(dropped_) +
                                  " lines left out, since the log was not read";
        if (reader_.send(count) == Sent::kLater) return false;
        dropped_ = 0;
        return true;
    }

    void close() {
        for (int waited = 0; !flush() && waited < kClosingTime; waited += 50) reader_.wait(50);
        reader_.close();
    }

 private:
    std::string stamp(int priority) const {
        if ((priority & LOG_FACMASK) == 0) priority |= facility_;
        char when[40] = "", text[64];
        const time_t now = time(nullptr);
        struct tm parts;
        localtime_r(&now, &parts);
        strftime(when, sizeof when, "%b %e %T", &parts);
        snprintf(text, sizeof text, "<%d>%s ", priority, when);
        return text;
    }

    void clear_queue_of_parent() {
        if (owner_ == getpid()) return;
        owner_ = getpid();
        queue_.clear();
        bytes_ = dropped_ = 0;
    }

    void send(std::string line) {
        if (flush() && reader_.send(line) != Sent::kLater) return;
        if (bytes_ + line.size() > kMaxQueued) {
            ++dropped_;
            return;
        }
        bytes_ += line.size();
        queue_.push_back(std::move(line));
        defer_log_flush([] { return log().flush(); });
    }

 public:
    static Log& log() {
        static Log the_log;
        return the_log;
    }

 private:
    std::string name_ = program_invocation_short_name;
    int options_ = 0;
    int facility_ = LOG_USER;
    Reader reader_;
    pid_t owner_ = 0;
    std::deque<std::string> queue_;
    size_t bytes_ = 0, dropped_ = 0;
};

// Calls a function and preserves errno. If memory runs out, the line is lost: callers may be C, which must
// not see exceptions.
template <class Call>
void guarded(Call call) {
    const int saved_errno = errno;
    try {
        call();
    } catch (const std::bad_alloc&) {
    }
    errno = saved_errno;
}

}  // namespace
}  // namespace quill

extern "C" {
#pragma GCC visibility push(default)

void openlog(const char* name, int options, int facility) {
    quill::guarded([=] { quill::Log::log().open(name, options, facility); });
}

void closelog() {
    quill::guarded([] { quill::Log::log().close(); });
}

void vsyslog(int priority, const char* format, va_list arguments) {
    quill::guarded([&] { quill::Log::log().write(priority, format, arguments); });
}

void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

// Called instead of the two functions above by code that is compiled with _FORTIFY_SOURCE.
// NOLINTBEGIN(bugprone-reserved-identifier, readability-identifier-naming)
void __vsyslog_chk(int priority, int, const char* format, va_list arguments) {
    vsyslog(priority, format, arguments);
}

void __syslog_chk(int priority, int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

// NOLINTEND(bugprone-reserved-identifier, readability-identifier-naming)

#pragma GCC visibility pop
}
