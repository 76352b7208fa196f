// The private key in the text of a file.
#pragma once

#include <string_view>

#include "base/secret_bytes.h"

namespace quill {

// Returns the only PEM block of a private key in the text: its BEGIN line, lines of base64, its END line. The
// text around it is left out, because sshd(8) or a shell could interpret it. Returns nothing if there is no
// block or more than one, or if the block has headers, as with a passphrase.
SecretBytes private_key_block(std::string_view text);

// Whether the text is not empty and has only characters of base64 (RFC 4648).
bool is_base64(std::string_view text);

}  // namespace quill
