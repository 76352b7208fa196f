// Detecting the format of a key file, and reading it into a record.
//
// OpenSSL detects certificates. ssh-keygen detects the rest: a file that it imports is an SSH2 public key, a
// file that it lists is one line of OpenSSH text. It also lists private keys, by their public half, so those
// are detected here.
#include <openssl/crypto.h>

#include <cerrno>
#include <cstring>

#include "library/common/trace.h"
#include "library/sshkey/keygen.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kSignRsaWord[] = "x509v3-sign-rsa";
constexpr char kSsh2End[] = "---- END SSH2 PUBLIC KEY ----\n";
constexpr char kCertificateEnd[] = "-----END CERTIFICATE-----\n";
constexpr char kSsh1PrivateKey[] = "SSH PRIVATE KEY FILE FORMAT 1.1\n";

// Bytes of line buffers, terminator included.
constexpr int kFirstLine = 75;
constexpr size_t kLongestImported = 73;  // characters; a file with a longer first line is an OpenSSH key
constexpr int kListing = 4096;
constexpr int kOneLineKey = 2100;
constexpr int kLineBuffer = 73;

// Returns true if the file starts with "x509v3-sign-rsa" and a blank.
bool starts_with_sign_rsa(FILE* file) {
    char word[sizeof kSignRsaWord + 1] = {};
    for (size_t i = 0; i + 1 < sizeof word; ++i) {
        const int byte = getc(file);
        if (byte == ' ') break;
        word[i] = static_cast<char>(byte);
    }
    return memcmp(word, kSignRsaWord, sizeof kSignRsaWord) == 0;
}

uint32_t detect_by_listing(const char* path, uint8_t& format) {
    const bool ran = run_keygen("-l", path);
    const uint32_t is_public = ran ? sshkey_is_public_stdout(kKeygenOutput, path) : 0;
    remove_keygen_output();
    if (!ran) return SECURITY_ERR_SSHKEY_TYPE;
    if (is_public == SECURITY_ERR_FILE_OPEN) return is_public;
    format = is_public == 1 ? SSHKEY_FMT_OPENSSH : SSHKEY_FMT_NOT_PUBLIC;
    return SECURITY_OK;
}

uint32_t detect_by_import(const char* path, uint8_t& format) {
    const uint32_t empty = run_keygen("-i", path) ? sshkey_is_empty_stdout(kKeygenOutput) : UINT32_MAX;
    if (empty == SECURITY_ERR_FILE_OPEN) return empty;  // the output files are left, to find out why
    if (empty == 1) return detect_by_listing(path, format);
    remove_keygen_output();
    if (empty != 0) return SECURITY_ERR_SSHKEY_TYPE;
    format = SSHKEY_FMT_SSH2;
    return SECURITY_OK;
}

// Returns true if nothing but the key's type follows the path in the listing, or if the listing does not have
// the path. Modifies the listing.
bool names_only_path(char* listing, const char* path) {
    const char* named = strstr(listing, path);
    if (named == nullptr) return true;  // the listing has the key's comment instead
    char* type = strstr(listing, " (DSA)");
    if (type == nullptr) type = strstr(listing, " (RSA)");
    if (type != nullptr) memcpy(type, "\n", 2);
    const size_t length = strlen(path);
    return strncmp(named, path, length) == 0 && strcmp(named + length, "\n") == 0;
}

uint32_t refuse_private_key(const char* path) {
    const File file = open_key_file(path);
    if (!file) return SECURITY_ERR_FILE_OPEN;
    return holds_private_key(file.get()) ? SECURITY_ERR_SSHKEY_FORMAT : SECURITY_OK;
}

uint32_t read_first_line(const char* path, ssh_key_rec& record) {
    const File file = open_key_file(path);
    if (!file) return SECURITY_ERR_FILE_OPEN;
    if (fgets(record.key_text, kOneLineKey, file.get()) != nullptr) return SECURITY_OK;
    trace("File %s read error", path);
    return SECURITY_ERR_FILE_READ;
}

// Reads up to a newline, like fgets(3), but also stops after a NUL, which would hide what follows. Returns
// the number of bytes read, 0 at the end of the file.
size_t read_line(FILE* file, char (&line)[kLineBuffer]) {
    size_t length = 0;
    int byte = 0;
    while (length + 1 < sizeof line && byte != '\n' && (byte = getc(file)) != EOF)
        if ((line[length++] = static_cast<char>(byte)) == '\0') break;
    line[length] = '\0';
    return length;
}

// Reads lines up to and including `last_line`, or to the end of the file if that is null. Returns false if
// the text does not fit the field or has a NUL.
template <size_t size>
bool read_text(FILE* file, const char* last_line, char (&text)[size]) {
    char line[kLineBuffer];
    size_t used = 0;
    while (const size_t length = read_line(file, line)) {
        if (length >= size - used || strlen(line) != length) return false;
        memcpy(text + used, line, length + 1);
        used += length;
        if (last_line != nullptr && strcmp(line, last_line) == 0) break;
    }
    return true;
}

const char* last_line_of(uint8_t format) {
    switch (format) {
    case SSHKEY_FMT_SSH2:
        return kSsh2End;
    case SSHKEY_FMT_X509_PEM:
        return kCertificateEnd;
    }
    return nullptr;
}

// Returns false for a name that does not fit: a cut name could be that of another user.
template <size_t size>
bool copy_user_name(const char* name, char (&field)[size]) {
    const size_t length = strnlen(name, size);
    if (length == size) return false;
    memcpy(field, name, length + 1);
    return true;
}

uint32_t read_openssh_key(const char* path, const char* user_name, ssh_key_rec& record) {
    const uint32_t status = read_first_line(path, record);
    if (status != SECURITY_OK) return status;
    return copy_user_name(user_name, record.user_name) ? SECURITY_OK : SECURITY_ERR_REQUEST_TEXT;
}

// Clears the record unless the status is 0 and its text has no private key. Checked on the text that was
// read, since the file may have changed after it was checked.
template <class Record>
uint32_t reject_private_key(uint32_t status, Record& record) {
    if (status == SECURITY_OK && holds_private_key(std::string_view(record.key_text)))
        status = SECURITY_ERR_SSHKEY_FORMAT;
    if (status != SECURITY_OK) OPENSSL_cleanse(&record, sizeof record);
    return status;
}

}  // namespace
}  // namespace quill

uint32_t sshkey_check_type(const char* path, uint8_t* format) {
    using namespace quill;
    if (!is_safe_path(path)) return SECURITY_ERR_FILE_OPEN;
    File file = open_key_file(path);
    if (!file) return SECURITY_ERR_FILE_OPEN;
    if (starts_with_sign_rsa(file.get())) {
        *format = SSHKEY_FMT_X509V3_SIGN_RSA;
        return SECURITY_OK;
    }
    rewind(file.get());
    const Certificate certificate = find_certificate(file.get());
    if (!certificate && errno == ENOMEM) return SECURITY_ERR_SSHKEY_TYPE;
    if (certificate) {
        // Left open on purpose: callers depend on one more descriptor for each certificate.
        static_cast<void>(file.release());
        *format = SSHKEY_FMT_X509_PEM;
        return SECURITY_OK;
    }
    rewind(file.get());
    char line[kFirstLine];
    if (fgets(line, sizeof line, file.get()) == nullptr) *line = '\0';
    file.reset();
    if (opens_private_key(line)) {
        *format = SSHKEY_FMT_NOT_PUBLIC;
        return SECURITY_OK;
    }
    const KeygenLock lock;
    return strlen(line) <= kLongestImported ? detect_by_import(path, *format)
                                            : detect_by_listing(path, *format);
}

uint32_t sshkey_is_empty_stdout(const char* path) {
    using namespace quill;
    const File file = open_key_file(path);
    if (!file) return SECURITY_ERR_FILE_OPEN;
    return getc(file.get()) == EOF ? 1 : 0;
}

uint32_t sshkey_is_public_stdout(const char* output_path, const char* key_path) {
    using namespace quill;
    const File output = open_key_file(output_path);
    if (!output) return SECURITY_ERR_FILE_OPEN;
    char listing[kListing];
    if (fgets(listing, sizeof listing, output.get()) == nullptr ||
        strstr(listing, "is not a public key file") != nullptr || !names_only_path(listing, key_path))
        return 0;

    const File key = open_key_file(key_path);
    if (!key) return SECURITY_ERR_FILE_OPEN;
    char line[sizeof kSsh1PrivateKey];
    return fgets(line, sizeof line, key.get()) != nullptr && strcmp(line, kSsh1PrivateKey) != 0 ? 1 : 0;
}

uint32_t copy_sshkey_file_content(const char* path, const char* user_name, ssh_key_rec* record,
                                  ssh_key_new_rec* new_record, uint8_t* format) {
    using namespace quill;
    uint32_t status = refuse_private_key(path);
    if (status == SECURITY_OK) status = sshkey_check_type(path, format);
    if (status != SECURITY_OK) return status;
    if (*format == SSHKEY_FMT_NOT_PUBLIC) return SECURITY_ERR_SSHKEY_FORMAT;
    if (*format == SSHKEY_FMT_OPENSSH)
        return reject_private_key(read_openssh_key(path, user_name, *record), *record);
    return reject_private_key(sshkey_new_copy_file_content(path, user_name, *format, new_record),
                              *new_record);
}

uint32_t sshkey_new_copy_file_content(const char* path, const char* user_name, uint8_t format,
                                      ssh_key_new_rec* record) {
    using namespace quill;
    const File file = open_key_file(path);
    if (!file) return SECURITY_ERR_FILE_OPEN;
    if (!copy_user_name(user_name, record->user_name)) return SECURITY_ERR_REQUEST_TEXT;
    const bool fits = read_text(file.get(), last_line_of(format), record->key_text);
    if (fits && ferror(file.get()) == 0) {
        record->key_format = format;
        return SECURITY_OK;
    }
    OPENSSL_cleanse(record, sizeof *record);
    return fits ? SECURITY_ERR_FILE_READ : SECURITY_ERR_SSHKEY_FORMAT;
}
