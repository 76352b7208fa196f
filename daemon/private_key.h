// The text of a private key, cut out of a file.
#pragma once

#include <string_view>

#include "base/secret_bytes.h"

namespace quill {

// The one PEM block of a private key in the text, from its BEGIN to its END line and with lines of base64
// between them: nothing of what stands around it, which sshd(8) or a shell could make something of. Empty
// where there is none, where any block follows or precedes it, and for one with headers, as those with a
// passphrase have.
SecretBytes private_key_block(std::string_view text);

// Whether it is not empty and of the characters of base64 (RFC 4648) alone.
bool is_base64(std::string_view text);

}  // namespace quill
