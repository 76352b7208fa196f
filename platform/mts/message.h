// Internals of the message transport: a received message, and the protocol between the fan-out and its
// listeners.
//
// The fan-out sends first: an MtsWelcome with 0, or with the errno of a refusal, after which it closes the
// connection. The listener sends one MtsSubscription with its virtual device context, and gets a second
// MtsWelcome once the subscription is in effect, or with EXDEV from the fan-out of another context. From then
// on the listener sends nothing, and the fan-out sends messages: an MtsHeader and the payload. Integers are
// big-endian.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/channel/frame.h"
#include "quillplatform/mts.h"

namespace quill {

class MtsMessage {
 public:
    MtsMessage(uint32_t message_opcode, uint32_t lost_before, uint32_t size)
        : opcode(message_opcode), lost(lost_before), payload_(size + kPadding) {}
    MtsMessage(uint32_t message_opcode, const void* payload, uint32_t size)
        : MtsMessage(message_opcode, 0u, size) {
        if (size != 0) memcpy(payload_.data(), payload, size);
    }

    uint32_t opcode;
    uint32_t lost;

    unsigned char* payload() { return payload_.data(); }
    const unsigned char* payload() const { return payload_.data(); }
    uint32_t size() const { return static_cast<uint32_t>(payload_.size()) - kPadding; }

 private:
    // Zero bytes after the payload, as quillplatform/mts.h promises.
    static constexpr uint32_t kPadding = 4;
    std::vector<unsigned char> payload_;
};

constexpr uint32_t kMtsMagic = 0x514d5453;  // "QMTS"

struct MtsWelcome {
    Be32 magic{kMtsMagic};
    Be32 version{kFrameVersion};
    Be32 error;
};

struct MtsSubscription {
    Be32 magic{kMtsMagic};
    Be32 version{kFrameVersion};
    Be32 context;  // in which the listener runs
    Be32 sap;
    Be32 opcode;
};

struct MtsHeader {
    Be32 magic{kMtsMagic};
    Be32 version{kFrameVersion};
    Be32 opcode;
    Be32 lost;    // messages before this one that were not sent to this listener
    Be32 length;  // bytes of the payload that follows
};
static_assert(sizeof(MtsHeader) == 20);

// Returns true if a frame of the right size has the magic number and the version of this protocol.
template <class Frame>
bool ours(const Frame& frame) {
    return frame.magic == kMtsMagic && frame.version == kFrameVersion;
}

}  // namespace quill
