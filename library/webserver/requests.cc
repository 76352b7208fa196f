// Client functions for the web server: sending a certificate or key file, enabling what is stored, and
// setting the ports. All requests are one-way.
#include <openssl/crypto.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/byte_order.h"
#include "base/file_location.h"
#include "base/wiped.h"
#include "library/common/trace.h"
#include "quillplatform/shell.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr size_t kLongestText = sizeof(nginx_cert_rec::text) - 1;

template <class Record>
uint32_t send_one_way(int32_t request_type, Record& record, uint32_t connection) {
    uint32_t length = sizeof record;
    return static_cast<uint32_t>(security_cmi2(request_type, SET_REQ, &record, nullptr, &length, connection));
}

using CertRecord = Wiped<nginx_cert_rec>;  // it may hold a key

// Owning type for a file that is read line by line. Its buffers are wiped: the file may be a private key.
class KeyFile {
 public:
    explicit KeyFile(const char* path) : stream_(fopen(path, "r")) {
        if (stream_ != nullptr) setvbuf(stream_, bytes_, _IOFBF, sizeof bytes_);
    }
    ~KeyFile() {
        if (stream_ != nullptr) fclose(stream_);
        if (line_ != nullptr) OPENSSL_cleanse(line_, capacity_);
        free(line_);
        OPENSSL_cleanse(bytes_, sizeof bytes_);
    }
    KeyFile(const KeyFile&) = delete;
    KeyFile& operator=(const KeyFile&) = delete;

    bool is_open() const { return stream_ != nullptr; }
    // Returns the next line, or null at the end of the file and on failure. Calls __getdelim(), which
    // getline(3) is a wrapper of.
    const char* next_line() { return __getdelim(&line_, &capacity_, '\n', stream_) < 0 ? nullptr : line_; }
    // Size of the line buffer in bytes.
    size_t capacity() const { return capacity_; }
    // Returns true if the last call of next_line() failed. ferror(3) would miss a failed allocation.
    bool failed() const { return feof(stream_) == 0; }

 private:
    FILE* stream_;
    char* line_ = nullptr;
    size_t capacity_ = 0;
    char bytes_[BUFSIZ];
};

// Appends a line, up to its first NUL, with each doubled percent sign made a single one. Returns the new end
// of the text.
size_t append(char* text, size_t end, const char* line) {
    for (const char* at = line; *at != '\0' && end < kLongestText; ++at) {
        if (at[0] == '%' && at[1] == '%') ++at;
        text[end++] = *at;
    }
    text[end] = '\0';
    return end;
}

uint32_t read_text(KeyFile& file, nginx_cert_rec& record) {
    size_t end = 0;
    record.text[0] = '\0';
    while (const char* line = file.next_line()) {
        // The size of the line buffer counts, not the length of the line: callers depend on this limit.
        if (end + file.capacity() > kLongestText) {
            trace("Cert exceeds max size. Use encoded certificate");
            return SECURITY_ERR_CERT_TOO_BIG;
        }
        end = append(record.text, end, line);
    }
    return file.failed() ? SECURITY_ERR_FILE_READ : SECURITY_OK;
}

// Reads a file on a device. Without a device it is a temporary copy, which is deleted on failure too.
uint32_t read_file(char* path, const Device* device, uint32_t item, nginx_cert_rec& record) {
    if (device == nullptr) {
        const uint32_t status = copy_nginx_file_content(path, &record, item);
        unlink(path);
        return status;
    }
    char whole_path[kFilePath];
    complete_path(*device, path, whole_path);
    return copy_nginx_file_content(whole_path, &record, item);
}

}  // namespace
}  // namespace quill

uint32_t copy_nginx_file_content(const char* path, nginx_cert_rec* record, uint32_t item) {
    using namespace quill;
    KeyFile file(path);
    uint32_t status = SECURITY_ERR_FILE_READ;
    if (file.is_open()) {
        record->item = item;
        status = read_text(file, *record);
    }
    if (status == SECURITY_ERR_FILE_READ) trace("File %s read error", path);
    return status;
}

uint32_t security_nginx_https_send(char* path, int32_t location_type, uint32_t item, uint32_t connection) {
    using namespace quill;
    const Device* device = device_of(location_type);
    if (device == nullptr && location_type != SECURITY_LOCATION_TEMPORARY) {
        trace("Security URI unknown type: %d", location_type);
        return SECURITY_ERR_URI_TYPE;
    }
    CertRecord record;
    const uint32_t status = read_file(path, device, item, record);
    if (status != SECURITY_OK) {
        trace("Prepare security file failed");
        return status;
    }
    return send_one_way(SECURITY_NGINX_CERT_REQUEST, record, connection);
}

uint32_t security_nginx_cert_enable(uint32_t connection) {
    quill::CertRecord record;
    record.enable = 1;
    return quill::send_one_way(SECURITY_NGINX_CERT_REQUEST, record, connection);
}

uint32_t cmi_security_nginx_configure(uint32_t connection, uint32_t second, uint32_t third, uint32_t fourth) {
    using quill::big_endian;
    nginx_port_rec record{{big_endian(third), big_endian(fourth), big_endian(second)}};
    return quill::send_one_way(SECURITY_NGINX_PORT_REQUEST, record, connection);
}
