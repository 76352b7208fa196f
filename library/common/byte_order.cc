// The words of request records that are sent in big-endian order, one row for each type. All other words are
// sent in host order, and records of types without a row are sent unchanged. Both ends depend on this table.
#include "base/byte_order.h"

#include <cstddef>
#include <cstring>

#include "quillsecurity.h"

namespace quill {
namespace {

constexpr size_t kMaxWords = 5;

struct WireWords {
    int32_t request_type;
    size_t count;
    size_t offsets[kMaxWords];
};

#define WORD(record, field) offsetof(record, field)

constexpr WireWords kWireWords[] = {
    {SECURITY_ENABLE_INFO_REQUEST, 2, {WORD(security_enable_info, code), WORD(security_enable_info, value)}},
    {SECURITY_USER_REQUEST, 2, {WORD(security_user, user_type), WORD(security_user, encryption_type)}},
    {SECURITY_SSHKEY_REQUEST, 2, {WORD(ssh_key_cmd_rec, kind), WORD(ssh_key_cmd_rec, value)}},
    {SECURITY_PRIV_INFO_REQUEST,
     5,
     {WORD(security_priv_info, priv_lvl), WORD(security_priv_info, encryption_type),
      WORD(security_priv_info, secret_len), WORD(security_priv_info, shadow_style),
      WORD(security_priv_info, salt_len)}},
};

#undef WORD

void flip_at(unsigned char* bytes) {
    uint32_t word;
    memcpy(&word, bytes, sizeof word);
    flip(word);
    memcpy(bytes, &word, sizeof word);
}

}  // namespace
}  // namespace quill

void security_conf_cmi_byteorder_convert(int32_t request_type, void* record) {
    for (const auto& row : quill::kWireWords) {
        if (row.request_type != request_type) continue;
        for (size_t i = 0; i < row.count; ++i)
            quill::flip_at(static_cast<unsigned char*>(record) + row.offsets[i]);
    }
}
