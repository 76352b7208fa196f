// The frames of the request channel. A request is one message of the socket, and so is its reply: a header of
// fixed size and the record.
//
// The words of the header are big-endian, and the record is sent as the library made it, so 32-bit clients
// and 64-bit daemons can be mixed. An empty message looks like the end of the connection and ends it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/byte_order.h"
#include "quillplatform/shell.h"

struct sockaddr_un;

namespace quill {

// A big-endian word of a frame. Converts to and from a number.
class Be32 {
 public:
    Be32() = default;
    Be32(uint32_t number) : bytes_(big_endian(number)) {}     // NOLINT(google-explicit-constructor)
    operator uint32_t() const { return big_endian(bytes_); }  // NOLINT(google-explicit-constructor)

 private:
    uint32_t bytes_ = 0;
};

constexpr uint32_t kFrameMagic = 0x51534543;  // "QSEC"
constexpr uint32_t kFrameVersion = 2;

struct RequestHeader {
    Be32 magic{kFrameMagic};
    Be32 version{kFrameVersion};
    Be32 request_type;
    Be32 operation;
    Be32 session;
    Be32 context;         // the virtual device context that the client runs in
    Be32 length;          // bytes of the record that follows
    char user_name[128];  // on whose behalf the client claims to act; NUL-terminated
};
static_assert(sizeof(RequestHeader) == 156);

struct ReplyHeader {
    Be32 magic{kFrameMagic};
    Be32 version{kFrameVersion};
    Be32 status;
    Be32 length;
};
static_assert(sizeof(ReplyHeader) == 16);

// The buffer of a message: the header, and the largest record right behind it.
template <class Header>
struct Frame {
    Header header;
    unsigned char record[SECURITY_CMI_MAX_RECORD];
};

// Whether a message of `received` bytes is a header of this version and a record of the length in the header.
template <class Header>
bool well_formed(const Header& header, size_t received) {
    return received >= sizeof(Header) && header.magic == kFrameMagic && header.version == kFrameVersion &&
           header.length == received - sizeof(Header);
}

// The names of the daemon's sockets in the runtime directory (platform/folders.h).
constexpr char kRequestSocket[] = "quillsecurityd.sock";
constexpr char kAnnouncementSocket[] = "quillsecurityd.mts";

// Stores the address of a socket in the runtime directory of this context. Returns false with errno EINVAL if
// that is not an absolute path, or ENAMETOOLONG if the path does not fit. Throws std::bad_alloc.
bool socket_address(sockaddr_un& address, const char* name = kRequestSocket);

}  // namespace quill
