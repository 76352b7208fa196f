// URIs of files, parsed by the platform, and by the library for a user's key file: no buffer overflows, no
// part is lost, and only files on the given device are opened.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <memory>
#include <string>

#include "base/text_field.h"
#include "fuzz/input.h"
#include "quillplatform/shell.h"
#include "quillsecurity.h"
#include "tests/fakes/world.h"

namespace {

constexpr size_t kPart = 256;

bool in_library;
std::string opened, removed;

// Parses into blocks of exactly the size of the parts' buffers.
void split(const std::string& uri) {
    const std::unique_ptr<char[]> device(new char[kPart]), path(new char[kPart]);
    if (vsh_xml_parse_uri(uri.c_str(), device.get(), path.get()) != 0) {
        require(*device.get() == '\0' && *path.get() == '\0' && uri.size() >= kPart);
        return;
    }
    const size_t device_length = strnlen(device.get(), kPart), path_length = strnlen(path.get(), kPart);
    require(device_length < kPart && path_length < kPart);
    const std::string first(device.get(), device_length), second(path.get(), path_length);
    const std::string head = uri.find(':') == uri.npos ? "" : first + ":";
    require(uri == head + second || uri == head + "/" + second);
}

bool below_device(const std::string& path, const std::string& context) {
    return path.starts_with("/bootflash" + context + "/") || path.starts_with("/volatile" + context + "/");
}

// A request of the client for the key file of an existing user.
void use(const std::string& uri, const std::string& context) {
    common_user_record record{};
    quill::set_text(record.name, "amy");
    quill::set_text(record.ssh_key, uri.c_str());
    record.expiry_year = record.expiry_month = record.expiry_day = -1;
    opened.clear();
    removed.clear();
    in_library = true;
    const uint32_t status = cmi_common_user_config(0, SET_REQ, &record);
    in_library = false;
    require(removed.empty() && world().requests.empty());
    require(opened.empty() || (below_device(opened, context) && opened.size() < kPart));
    require(status != SECURITY_OK || *record.ssh_key == '\0');
}

void set_context(const std::string& context) {
    static std::string now;
    if (context == now) return;
    now = context;
    setenv("SYSMGR_VDC_ID", context.empty() ? "1" : context.c_str(), 1);
}

}  // namespace

// No file exists.
extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    if (!in_library) return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    if (strncmp(path, "/tovo/", 6) != 0) opened = path;
    errno = ENOENT;
    return -1;
}

extern "C" int unlink(const char* path) noexcept {
    if (!in_library) return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
    removed = path;
    return -1;
}

// Input: whether the context is another than the default, the URI.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    world() = World();
    world().history = false;
    world().shadow = platform_shadow_entry{SECURITY_OK, "*", -1};
    Input input(data, size);
    const bool other = input.byte() % 2 != 0;
    set_context(other ? "42" : "");
    const std::string uri(std::string(input.rest()).c_str());
    split(uri);
    use(uri, other ? "/vdc_42" : "");
    return 0;
}
