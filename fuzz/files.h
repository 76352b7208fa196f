// Files in memory in place of those in /tmp, for the functions with which the library opens, reads and
// removes files. To be included by harnesses only: it defines these functions of the C library.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

using Content = std::shared_ptr<std::string>;

inline std::map<std::string, Content>& files() {
    static std::map<std::string, Content> instance;
    return instance;
}

// Open files; descriptors count from kFirstDescriptor, which the kernel does not use.
constexpr int kFirstDescriptor = 1 << 20;
inline std::vector<Content>& opened() {
    static std::vector<Content> instance;
    return instance;
}

struct Stream {
    Content content;
    size_t position = 0;
    FILE* file = nullptr;
};
inline std::list<Stream>& streams() {
    static std::list<Stream> instance;
    return instance;
}

// The check of a certificate leaves its file open, so the stream and its buffer are released here.
inline void close_all() {
    while (!streams().empty()) {
        FILE* file = streams().back().file;
        char* buffer = file->_IO_buf_base;
        fclose(file);
        delete[] buffer;
    }
    opened().clear();
}

inline void put_file(const char* path, const void* bytes, size_t length) {
    files()[path] = std::make_shared<std::string>(static_cast<const char*>(bytes), length);
}

inline bool in_memory(int descriptor) { return descriptor >= kFirstDescriptor; }
inline Content& content_of(int descriptor) {
    return opened().at(static_cast<size_t>(descriptor - kFirstDescriptor));
}

extern "C" int unlink(const char* path) noexcept { return files().erase(path) == 1 ? 0 : -1; }

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    if (strncmp(path, "/tmp/", 5) != 0)
        return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    if ((flags & O_EXCL) != 0) put_file(path, "", 0);
    const auto found = files().find(path);
    errno = ENOENT;
    if (found == files().end()) return -1;
    opened().push_back(found->second);
    return kFirstDescriptor + static_cast<int>(opened().size()) - 1;
}

extern "C" int close(int descriptor) {
    if (!in_memory(descriptor)) return static_cast<int>(syscall(SYS_close, descriptor));
    content_of(descriptor).reset();
    return 0;
}

extern "C" ssize_t write(int descriptor, const void* bytes, size_t length) {
    if (!in_memory(descriptor)) return static_cast<ssize_t>(syscall(SYS_write, descriptor, bytes, length));
    content_of(descriptor)->append(static_cast<const char*>(bytes), length);
    return static_cast<ssize_t>(length);
}

// The library only uses the type of the file.
extern "C" int fstat(int descriptor, struct stat* facts) noexcept {
    *facts = {};
    facts->st_mode = S_IFREG;
    return in_memory(descriptor) ? 0 : -1;
}

extern "C" FILE* fdopen(int descriptor, const char*) noexcept {
    Stream& stream = streams().emplace_back();
    stream.content = content_of(descriptor);
    const auto read = [](void* cookie, char* to, size_t length) {
        auto& from = *static_cast<Stream*>(cookie);
        const size_t copied = from.content->copy(to, length, std::min(from.position, from.content->size()));
        from.position += copied;
        return static_cast<ssize_t>(copied);
    };
    const auto seek = [](void* cookie, off64_t* offset, int whence) {
        if (whence != SEEK_SET || *offset < 0) return -1;
        static_cast<Stream*>(cookie)->position = static_cast<size_t>(*offset);
        return 0;
    };
    const auto end = [](void* cookie) {
        streams().remove_if([cookie](const Stream& s) { return &s == cookie; });
        return 0;
    };
    stream.file = fopencookie(&stream, "r", {read, nullptr, seek, end});
    return stream.file;
}
