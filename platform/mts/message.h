// The message transport inside: a message as it is handed to whoever receives it, and the frames between the
// fan-out and its listeners.
//
// The fan-out speaks first: a welcome with 0, or with the errno of a refusal, after which it hangs up. The
// listener says what it wants to hear, once, gets another welcome when that holds, and is silent from then
// on. What follows is messages. Words of frames are big-endian by type.
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
        : opcode(message_opcode), lost(lost_before), payload_(size + kTail) {}
    MtsMessage(uint32_t message_opcode, const void* payload, uint32_t size)
        : MtsMessage(message_opcode, 0u, size) {
        if (size != 0) memcpy(payload_.data(), payload, size);
    }

    uint32_t opcode;
    uint32_t lost;

    unsigned char* payload() { return payload_.data(); }
    const unsigned char* payload() const { return payload_.data(); }
    uint32_t size() const { return static_cast<uint32_t>(payload_.size()) - kTail; }

 private:
    // Zero, so that a reader of the first word behind the payload finds none.
    static constexpr uint32_t kTail = 4;
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
    Be32 sap;
    Be32 opcode;
};

struct MtsHead {
    Be32 magic{kMtsMagic};
    Be32 version{kFrameVersion};
    Be32 opcode;
    Be32 lost;    // messages that this listener was not sent before this one
    Be32 length;  // bytes of the payload that follows
};
static_assert(sizeof(MtsHead) == 20);

// Whether a frame, received whole, is one of this version.
template <class Frame>
bool ours(const Frame& frame) {
    return frame.magic == kMtsMagic && frame.version == kFrameVersion;
}

}  // namespace quill
