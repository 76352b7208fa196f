// The frames of the request channel: one message a request, one message a reply.
//
// A head of fixed size, then the record. The head's words are big-endian by type, so a 32-bit client and a
// 64-bit daemon agree on every byte; the record travels as the library made it. A message of no bytes cannot
// be told from the end of the connection, and ends it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/byte_order.h"
#include "quillplatform/shell.h"

struct sockaddr_un;

namespace quill {

// A word of a frame; it cannot pass for a number by accident.
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

struct RequestHead {
    Be32 magic{kFrameMagic};
    Be32 version{kFrameVersion};
    Be32 request_type;
    Be32 operation;
    Be32 session;
    Be32 context;         // the virtual device context that the client runs in
    Be32 length;          // bytes of the record that follows
    char user_name[128];  // whom the client says it acts for; NUL-terminated
};
static_assert(sizeof(RequestHead) == 156);

struct ReplyHead {
    Be32 magic{kFrameMagic};
    Be32 version{kFrameVersion};
    Be32 status;
    Be32 length;
};
static_assert(sizeof(ReplyHead) == 16);

// A message as it crosses: the head, and right behind it room for the largest record.
template <class Head>
struct Frame {
    Head head;
    unsigned char record[SECURITY_CMI_MAX_RECORD];
};

// Whether a message of `received` bytes is a head of this version and exactly the record that it announces.
template <class Head>
bool well_formed(const Head& head, size_t received) {
    return received >= sizeof(Head) && head.magic == kFrameMagic && head.version == kFrameVersion &&
           head.length == received - sizeof(Head);
}

// The sockets of a context's daemon in its runtime folder, platform/folders.h.
constexpr char kRequestSocket[] = "quillsecurityd.sock";
constexpr char kAnnouncementSocket[] = "quillsecurityd.mts";

// The address of one of them; false with errno EINVAL where the folder is no absolute path, and ENAMETOOLONG
// where the address does not fit.
bool socket_address(sockaddr_un& address, const char* name = kRequestSocket);

}  // namespace quill
