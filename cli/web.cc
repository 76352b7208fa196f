// quillsec web: the web server's switch and ports, and the certificate and key for HTTPS.
#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "base/block.h"
#include "base/descriptor.h"
#include "base/wiped.h"
#include "cli/command.h"
#include "cli/exchange.h"
#include "cli/input_file.h"
#include "cli/words.h"
#include "quillplatform/shell.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

constexpr const char* kObject = "the web server";
constexpr size_t kLargestFile = 1 << 20;  // more than a record can hold

// A port of 0 means that none is set.
struct Settings {
    uint32_t on, http_port, https_port;
};

uint32_t service_value(int32_t code) {
    uint32_t value = 0;
    const uint32_t status = status_of(cmi_enable_info_config(0, GET_REQ, code, &value));
    if (status == SECURITY_ERR_NO_VALUE) return 0;
    require_success(status, kObject, "read");
    return value;
}

Settings settings() {
    return {service_value(SECURITY_SERVICE_PLOTY), service_value(SECURITY_SERVICE_PLOTY_HTTP_PORT),
            service_value(SECURITY_SERVICE_PLOTY_HTTPS_PORT)};
}

void configure(const Settings& wanted) {
    const uint32_t result = cmi_security_nginx_configure(0, wanted.on, wanted.http_port, wanted.https_port);
    require_success(status_of(result), kObject, "change");
}

struct Certificate {
    Cell subject{nullptr, "none"};
    Cell expires{nullptr, ""};
};

std::string contents(BIO* bio) {
    char* bytes = nullptr;
    const auto length = static_cast<size_t>(BIO_get_mem_data(bio, &bytes));
    return {bytes, length};
}

Certificate described(const char* pem) {
    using Bio = std::unique_ptr<BIO, Release<BIO_free>>;
    const Bio input(BIO_new_mem_buf(pem, -1));
    const std::unique_ptr<X509, Release<X509_free>> read(
        PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr));
    ERR_clear_error();
    if (read == nullptr) return {{nullptr, "cannot be read"}, {nullptr, ""}};
    const Bio subject(BIO_new(BIO_s_mem())), expires(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(subject.get(), X509_get_subject_name(read.get()), 0,
                       XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    ASN1_TIME_print_ex(expires.get(), X509_get0_notAfter(read.get()), ASN1_DTFLGS_ISO8601);
    return {contents(subject.get()), contents(expires.get())};
}

// Only administrators may read it; others see "(for administrators)".
Certificate certificate() {
    nginx_cert_rec record{SECURITY_WEB_CERTIFICATE, {}, 0};
    const uint32_t status = ask(SECURITY_NGINX_CERT_REQUEST, GET_REQ, &record, sizeof record);
    if (status == SECURITY_PSS_NO_KEY) return {};
    if (status == SECURITY_ERR_NOT_PERMITTED) return {{nullptr, "(for administrators)"}, {nullptr, ""}};
    require_success(status, kObject, "read");
    record.text[sizeof record.text - 1] = '\0';
    return described(record.text);
}

Cell port_cell(uint32_t port) { return port == 0 ? Cell{nullptr, "none"} : Cell{port}; }

Answer show(const Arguments&) {
    const Settings now = settings();
    const Certificate used = certificate();
    Table table{"web", {"service", "http port", "https port", "certificate", "expires"}, {}};
    table.rows.push_back({now.on != 0 ? "on" : "off", port_cell(now.http_port), port_cell(now.https_port),
                          used.subject, used.expires});
    return table;
}

void take_port(const Arguments& arguments, const char* option, uint32_t& port) {
    const std::string* text = arguments.find(option);
    if (text == nullptr) return;
    const auto wanted = folded(*text) == "none" ? 0 : number(*text, 1, 65535);
    if (!wanted)
        throw Failure{Exit::kInvalidValue, fmt::format("option '{}'", option),
                      fmt::format("option '{}': value '{}' is not valid", option, *text),
                      "use 1 to 65535 or none"};
    port = *wanted;
}

Answer set_ports(const Arguments& arguments) {
    Settings wanted = settings();
    take_port(arguments, "--http", wanted.http_port);
    take_port(arguments, "--https", wanted.https_port);
    configure(wanted);
    return show(arguments);
}

// A copy in memory that the library can open by a path: a private key must not be copied to a disk.
class MemoryCopy {
 public:
    explicit MemoryCopy(std::string_view bytes) : descriptor_(memfd_create("quillsec", MFD_CLOEXEC)) {
        if (!descriptor_ || write(descriptor_.get(), bytes.data(), bytes.size()) != ssize_t(bytes.size()))
            throw file_failure("a copy in memory", errno);
    }
    std::string path() const { return fmt::format("/proc/self/fd/{}", descriptor_.get()); }

 private:
    const Descriptor descriptor_;
};

uint32_t send(const InputFile& file, uint32_t item) {
    const MemoryCopy copy(file.bytes());
    Wiped<nginx_cert_rec> record;
    const uint32_t status = copy_nginx_file_content(copy.path().c_str(), &record, item);
    if (status != SECURITY_OK) return status;
    uint32_t length = sizeof(nginx_cert_rec);
    nginx_cert_rec& sent = record;
    return status_of(static_cast<uint32_t>(
        security_cmi2(SECURITY_NGINX_CERT_REQUEST, SET_REQ, &sent, nullptr, &length, 0)));
}

Answer send_item(const Arguments& arguments, uint32_t item, const char* what) {
    const std::string& name = arguments["FILE"];
    const InputFile file(file_named(name), kLargestFile);
    const std::string object = fmt::format("{} '{}'", what, name);
    const uint32_t status = send(file, item);
    if (status == SECURITY_ERR_CERT_TOO_BIG && item == SECURITY_WEB_KEY) {
        throw Failure{Exit::kInvalidValue, object,
                      fmt::format("{}: a key of more than {} characters does not fit its record", object,
                                  sizeof(nginx_cert_rec::text) - 1),
                      "use an EC or Ed25519 key, or RSA of 2048 bits"};
    }
    require_success(status, object, "send");
    return Remark{"taken", {what, fmt::format("{} '{}': taken", what, printable(name))}};
}

Answer send_certificate(const Arguments& arguments) {
    return send_item(arguments, SECURITY_WEB_CERTIFICATE, "certificate");
}
Answer send_key(const Arguments& arguments) { return send_item(arguments, SECURITY_WEB_KEY, "key"); }

Answer enable(const Arguments& arguments) {
    Settings wanted = settings();
    if (wanted.https_port != 0)
        require_success(status_of(security_nginx_cert_enable(0)), "the web server's certificate", "use");
    wanted.on = 1;
    configure(wanted);
    return show(arguments);
}

Answer disable(const Arguments& arguments) {
    Settings wanted = settings();
    wanted.on = 0;
    configure(wanted);
    return show(arguments);
}

std::string notes() {
    return "A certificate and its key are PEM texts of at most 2099 characters, less the length of their\n"
           "longest line: RSA of 2048 bits fits, RSA of 3072 does not, EC and Ed25519 do. The key has no\n"
           "passphrase. A new certificate is sent before its key and used as soon as the key is there. A "
           "FILE\n"
           "is one of yours, or bootflash:/PATH, volatile:/PATH or slot0:/PATH: a regular file of at most\n"
           "1048576 bytes.\n\n"
           "With --json: {\"web\": [{\"service\", \"http port\", \"https port\", \"certificate\", "
           "\"expires\"}]},\n"
           "  null for what is not set; from cert and key {\"taken\": \"certificate\" or \"key\"}.";
}

constexpr Verb kVerbs[] = {
    {"show", "show the web server's settings and its certificate", {}, show},
    {"port",
     "set the ports",
     {{"--http", "for HTTP, or none", Argument::kOptional, "PORT"},
      {"--https", "for HTTPS, or none", Argument::kOptional, "PORT"}},
     set_ports,
     kSetsDevice},
    {"cert", "send a certificate", {{"FILE", "the file"}}, send_certificate, kSetsDevice},
    {"key", "send the certificate's key", {{"FILE", "the file"}}, send_key, kSetsDevice},
    {"enable", "switch the web service on, with HTTPS if it has a port", {}, enable, kSetsDevice},
    {"disable", "switch it off", {}, disable, kSetsDevice},
};
}  // namespace

const Noun kWeb{"web", "the web server: ports, certificate and key", notes, kVerbs};

}  // namespace quill::cli
