// What can be seen of a key file without knowing its kind, and what keeps private keys out.
#pragma once

#include <openssl/err.h>
#include <openssl/x509.h>

#include <cstdio>
#include <memory>
#include <string_view>

#include "common/block.h"

namespace quill {

// Files may turn out to be private keys, so what was read of one is wiped when it is closed.
constexpr size_t kFileBuffer = 4096;
struct CloseFile {
    char* buffer = nullptr;
    void operator()(FILE* file) const;
};
using File = std::unique_ptr<FILE, CloseFile>;

// Opens a regular file, or /dev/null, to read; null where there is none. A pipe or device would keep its
// reader waiting.
File open_key_file(const char* path);

using Certificate = std::unique_ptr<X509, Release<X509_free>>;

// While in scope, what OpenSSL has to say of a bad certificate is not left for the process's next call of it
// to find.
struct QuietErrors {
    QuietErrors() { ERR_set_mark(); }
    ~QuietErrors() { ERR_pop_to_mark(); }
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;
};

// The first certificate from here on, in PEM; null where there is none. An encrypted one is none: nobody is
// asked for a passphrase. Null, with errno ENOMEM, as well where memory ran out before that was known.
Certificate find_certificate(FILE* file);

// Whether a line opens a private key: PEM's, PKCS#8's, OpenSSH's or SSH2's. ssh-keygen finds SSH2's behind
// other words too, so it does not matter where in the line.
bool opens_private_key(std::string_view line);

// Whether any line of the text does, or of the file from here to its end. A file that cannot be read to its
// end might.
bool holds_private_key(std::string_view text);
bool holds_private_key(FILE* file);

}  // namespace quill
