// Reading key files of any format: opening them, finding certificates, and detecting private keys.
#pragma once

#include <openssl/err.h>
#include <openssl/x509.h>

#include <cstdio>
#include <memory>
#include <string_view>

#include "base/block.h"

namespace quill {

// Owning type for a stream with its own buffer, which is wiped when the file is closed: it may hold a
// private key.
constexpr size_t kFileBuffer = 4096;
struct CloseFile {
    char* buffer = nullptr;
    void operator()(FILE* file) const;
};
using File = std::unique_ptr<FILE, CloseFile>;

// Opens a regular file, or /dev/null, for reading. Returns null for any other file, since reading a pipe or a
// device may block, and on failure.
File open_key_file(const char* path);

using Certificate = std::unique_ptr<X509, Release<X509_free>>;

// Discards the errors that OpenSSL queues while in scope, so that the process's next use of OpenSSL does not
// find them.
struct OpensslErrorScope {
    OpensslErrorScope() { ERR_set_mark(); }
    ~OpensslErrorScope() { ERR_pop_to_mark(); }
    OpensslErrorScope(const OpensslErrorScope&) = delete;
    OpensslErrorScope& operator=(const OpensslErrorScope&) = delete;
};

// Reads the first PEM certificate from the current position. Returns null if there is none or it is
// encrypted, since no passphrase is asked for; null with errno ENOMEM if memory ran out.
Certificate find_certificate(FILE* file);

// Returns true if the line has the opening marker of a private key in PEM, PKCS#8, OpenSSH or SSH2 format,
// anywhere in the line: ssh-keygen accepts text before the marker.
bool opens_private_key(std::string_view line);

// Return true if any line of the text, or of the file from its current position on, opens a private key; also
// for a file that cannot be read to its end.
bool holds_private_key(std::string_view text);
bool holds_private_key(FILE* file);

}  // namespace quill
