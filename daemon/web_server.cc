// The store always holds a certificate and a key that belong together, so a new pair has to get past the old
// one: its certificate comes first and waits in a note of the store until its key is sent, and then both are
// stored. The note also sees to it that what was begun is finished, whenever the daemon ended.
#include "daemon/web_server.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstring>
#include <memory>

#include "base/block.h"
#include "base/byte_order.h"
#include "base/text_field.h"
#include "base/wiped.h"
#include "daemon/activation.h"
#include "quillplatform.h"

namespace quill {
namespace {

constexpr uint32_t kHighestPort = 65535;

using Bio = std::unique_ptr<BIO, Release<BIO_free>>;
using Certificate = std::unique_ptr<X509, Release<X509_free>>;
using PrivateKey = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;

// A text of the store or of a request.
struct Text : Wiped<nginx_cert_rec> {
    explicit Text(uint32_t which) { item = which; }
};

// What is on its way to the records, for this daemon or its successor. An empty text is none.
struct IncomingTexts {
    uint32_t complete;  // 1: to be stored; 0: the certificate waits for its key
    char certificate[sizeof nginx_cert_rec::text];
    char key[sizeof nginx_cert_rec::text];
};
using Incoming = Wiped<IncomingTexts>;

// The note's key stands behind all tables of records.
uint32_t note_table = big_endian(0x10001);
const pss_descriptor kNoteKey{&note_table, sizeof note_table};

Bio reader(const char* text) { return Bio(BIO_new_mem_buf(text, -1)); }

Certificate read_certificate(const char* text) {
    Certificate read(PEM_read_bio_X509(reader(text).get(), nullptr, nullptr, nullptr));
    ERR_clear_error();
    return read;
}

// Nobody is there to type a passphrase.
int no_passphrase(char*, int, int, void*) { return -1; }

PrivateKey read_key(const char* text) {
    PrivateKey read(PEM_read_bio_PrivateKey(reader(text).get(), nullptr, no_passphrase, nullptr));
    ERR_clear_error();
    return read;
}

bool belong_together(const Certificate& certificate, const PrivateKey& key) {
    const bool match = X509_check_private_key(certificate.get(), key.get()) == 1;
    ERR_clear_error();
    return match;
}

// What servers refuse to serve with: Debian's OpenSSL is at security level 2 (SSL_CTX_set_security_level(3)).
// Nobody looks at the signature that a certificate has from itself.
bool is_weak(X509* certificate) {
    constexpr int kBits = 112;
    int signature = 0;
    X509_get_signature_info(certificate, nullptr, nullptr, &signature, nullptr);
    const bool own = (X509_get_extension_flags(certificate) & EXFLAG_SS) != 0;
    EVP_PKEY* key = X509_get0_pubkey(certificate);
    const bool weak =
        key == nullptr || EVP_PKEY_get_security_bits(key) < kBits || (!own && signature < kBits);
    ERR_clear_error();
    return weak;
}

uint32_t check_certificate(const Certificate& certificate) {
    if (certificate == nullptr) return SECURITY_ERR_WEB_CERTIFICATE;
    const bool current = X509_cmp_time(X509_get0_notAfter(certificate.get()), nullptr) > 0;
    if (!current) return SECURITY_ERR_WEB_EXPIRED;
    return is_weak(certificate.get()) ? SECURITY_ERR_WEB_WEAK : SECURITY_OK;
}

uint32_t check_pair(const char* certificate_text, const char* key_text) {
    const Certificate certificate = read_certificate(certificate_text);
    const uint32_t status = check_certificate(certificate);
    if (status != SECURITY_OK) return status;
    const PrivateKey key = read_key(key_text);
    if (key == nullptr) return SECURITY_ERR_WEB_KEY;
    return belong_together(certificate, key) ? SECURITY_OK : SECURITY_ERR_WEB_MISMATCH;
}

uint32_t get(uint32_t store, Text& text) { return security_nginx_ssh_key_config(store, GET_REQ, &text); }

uint32_t put(uint32_t store, uint32_t item, const char* text) {
    if (*text == '\0') return SECURITY_OK;
    Text record(item);
    set_text(record.text, text);
    return security_nginx_ssh_key_config(store, SET_REQ, &record);
}

uint32_t missing_is_fine(uint32_t status) { return status == SECURITY_PSS_NO_KEY ? SECURITY_OK : status; }

uint32_t write_note(uint32_t store, Incoming& incoming) {
    const pss_descriptor value{static_cast<IncomingTexts*>(&incoming), sizeof(IncomingTexts)};
    return pss2_store(store, &kNoteKey, &value);
}

uint32_t drop_note(uint32_t store) { return missing_is_fine(pss2_delete(store, &kNoteKey, 1)); }

// Without a note, nothing.
uint32_t read_note(uint32_t store, Incoming& incoming) {
    uint32_t status = SECURITY_OK;
    const pss_descriptor* found = pss2_fetch(store, &kNoteKey, &status);
    if (status != SECURITY_OK) return missing_is_fine(status);
    if (found == nullptr || found->length != sizeof(IncomingTexts)) return SECURITY_OK;  // not one of ours
    memcpy(static_cast<IncomingTexts*>(&incoming), found->bytes, sizeof(IncomingTexts));
    terminate(incoming.certificate);
    terminate(incoming.key);
    return SECURITY_OK;
}

// Completes an interrupted change: stores what a complete entry says, and refuses to go on until that succeeds.
// What remains of the entry then is a certificate that waits for its key.
uint32_t settle(uint32_t store, Incoming& incoming) {
    uint32_t status = read_note(store, incoming);
    if (status != SECURITY_OK || incoming.complete == 0) return status;
    status = put(store, SECURITY_WEB_KEY, incoming.key);
    if (status == SECURITY_OK) status = put(store, SECURITY_WEB_CERTIFICATE, incoming.certificate);
    if (status == SECURITY_OK) status = drop_note(store);
    if (status != SECURITY_OK) return status;
    explicit_bzero(static_cast<IncomingTexts*>(&incoming), sizeof(IncomingTexts));
    return SECURITY_OK;
}

uint32_t store_all(uint32_t store, Incoming& incoming) {
    incoming.complete = 1;
    const uint32_t status = write_note(store, incoming);
    return status == SECURITY_OK ? settle(store, incoming) : status;
}

uint32_t set_certificate(uint32_t store, const nginx_cert_rec& record, Incoming& incoming) {
    const Certificate certificate = read_certificate(record.text);
    uint32_t status = check_certificate(certificate);
    if (status != SECURITY_OK) return status;
    Text key(SECURITY_WEB_KEY);
    status = get(store, key);
    if (status != SECURITY_OK && status != SECURITY_PSS_NO_KEY) return status;
    const PrivateKey stored = status == SECURITY_OK ? read_key(key.text) : nullptr;
    set_text(incoming.certificate, record.text);  // instead of another one that waited
    if (stored == nullptr || belong_together(certificate, stored)) return store_all(store, incoming);
    return write_note(store, incoming);
}

// Whether the key fits the certificate that is stored; when that ends is another question.
uint32_t check_key(uint32_t store, const PrivateKey& key) {
    Text text(SECURITY_WEB_CERTIFICATE);
    const uint32_t status = get(store, text);
    if (status != SECURITY_OK) return missing_is_fine(status);
    const Certificate certificate = read_certificate(text.text);
    return certificate == nullptr || belong_together(certificate, key) ? SECURITY_OK
                                                                       : SECURITY_ERR_WEB_MISMATCH;
}

uint32_t set_key(uint32_t store, const nginx_cert_rec& record, Incoming& incoming) {
    const PrivateKey key = read_key(record.text);
    if (key == nullptr) return SECURITY_ERR_WEB_KEY;
    const bool awaited = *incoming.certificate != '\0';
    const uint32_t status = awaited ? check_pair(incoming.certificate, record.text) : check_key(store, key);
    if (status != SECURITY_OK) return status;
    set_text(incoming.key, record.text);
    return store_all(store, incoming);
}

uint32_t enable(uint32_t store, const Incoming& incoming) {
    WebServer web;
    const uint32_t status = read_web_server(store, web);
    if (status != SECURITY_OK) return status;
    // Whoever has just sent a certificate means that one.
    return *incoming.certificate == '\0' ? web.pair : SECURITY_ERR_WEB_INCOMPLETE;
}

uint32_t set_item(uint32_t store, const nginx_cert_rec& record, Incoming& incoming) {
    if (record.enable != 0) return enable(store, incoming);
    return record.item == SECURITY_WEB_CERTIFICATE ? set_certificate(store, record, incoming)
                                                   : set_key(store, record, incoming);
}

uint32_t delete_item(uint32_t store, nginx_cert_rec& record, const Incoming& incoming) {
    if (record.item == SECURITY_WEB_CERTIFICATE && *incoming.certificate != '\0') {
        const uint32_t status = drop_note(store);
        if (status != SECURITY_OK) return status;
    }
    return security_nginx_ssh_key_config(store, DEL_REQ, &record);
}

uint32_t get_port(uint32_t store, int32_t item, uint32_t& port) {
    return nginx_port_info_config(store, GET_REQ, item, &port);
}

uint32_t set_port(uint32_t store, int32_t item, uint32_t port) {
    if (port != 0) return nginx_port_info_config(store, SET_REQ, item, &port);
    return missing_is_fine(nginx_port_info_config(store, DEL_REQ, item, &port));
}

bool fit(uint32_t http, uint32_t https) {
    return http <= kHighestPort && https <= kHighestPort && (http == 0 || http != https);
}

uint32_t get_switch(uint32_t store, uint32_t& on) {
    const uint32_t status = enable_info_config(store, GET_REQ, SECURITY_SERVICE_PLOTY, &on);
    return status == SECURITY_ERR_NO_VALUE ? SECURITY_OK : status;
}

uint32_t get_settings(uint32_t store, uint32_t& http, uint32_t& https, uint32_t& on) {
    uint32_t status = get_port(store, SECURITY_SERVICE_PLOTY_HTTP_PORT, http);
    if (status == SECURITY_OK) status = get_port(store, SECURITY_SERVICE_PLOTY_HTTPS_PORT, https);
    if (status == SECURITY_OK) status = get_switch(store, on);
    return status;
}

uint32_t set_settings(uint32_t store, uint32_t http, uint32_t https, uint32_t on) {
    if (!fit(http, https) || on > 1) return SECURITY_ERR_WEB_SETTINGS;
    uint32_t status = set_port(store, SECURITY_SERVICE_PLOTY_HTTP_PORT, http);
    if (status == SECURITY_OK) status = set_port(store, SECURITY_SERVICE_PLOTY_HTTPS_PORT, https);
    if (status == SECURITY_OK) status = enable_info_config(store, SET_REQ, SECURITY_SERVICE_PLOTY, &on);
    activate_later(Setting::kWebServer);  // with a failure some of it may be stored
    return status;
}

uint32_t used_when_stored(uint32_t status) {
    if (status == SECURITY_OK) activate_later(Setting::kWebServer);
    return status;
}

}  // namespace

WebServer::~WebServer() { OPENSSL_cleanse(key.data(), key.size()); }

uint32_t read_web_server(uint32_t store, WebServer& web) {
    uint32_t on = 0;
    Incoming incoming;
    uint32_t status = settle(store, incoming);
    if (status == SECURITY_OK) status = get_settings(store, web.http_port, web.https_port, on);
    if (status != SECURITY_OK) return status;
    web.on = on != 0;
    Text certificate(SECURITY_WEB_CERTIFICATE), key(SECURITY_WEB_KEY);
    status = get(store, certificate);
    if (status == SECURITY_OK) status = get(store, key);
    if (status != SECURITY_OK) {
        web.pair = SECURITY_ERR_WEB_INCOMPLETE;
        return missing_is_fine(status);
    }
    web.pair = check_pair(certificate.text, key.text);
    if (web.pair != SECURITY_OK) return SECURITY_OK;
    web.certificate = certificate.text;
    web.key = key.text;
    return SECURITY_OK;
}

uint32_t web_switch(uint32_t store, uint32_t operation, security_enable_info& info) {
    if (operation != SET_REQ)
        return enable_info_config(store, operation, SECURITY_SERVICE_PLOTY, &info.value);
    if (info.value > 1) return SECURITY_ERR_WEB_SETTINGS;
    return used_when_stored(enable_info_config(store, operation, SECURITY_SERVICE_PLOTY, &info.value));
}

uint32_t web_port(uint32_t store, uint32_t operation, security_enable_info& info) {
    const auto item = static_cast<int32_t>(info.code);
    if (operation == GET_REQ) {
        uint32_t port = 0;
        const uint32_t status = get_port(store, item, port);
        if (status != SECURITY_OK) return status;
        if (port == 0) return SECURITY_ERR_NO_VALUE;
        info.value = port;
        return SECURITY_OK;
    }
    if (operation != SET_REQ) return SECURITY_OK;  // a service's value is never removed
    const bool http = item == SECURITY_SERVICE_PLOTY_HTTP_PORT;
    uint32_t other = 0;
    const uint32_t status =
        get_port(store, http ? SECURITY_SERVICE_PLOTY_HTTPS_PORT : SECURITY_SERVICE_PLOTY_HTTP_PORT, other);
    if (status != SECURITY_OK) return status;
    if (!fit(info.value, other)) return SECURITY_ERR_WEB_SETTINGS;
    return used_when_stored(set_port(store, item, info.value));
}

uint32_t web_ports(uint32_t store, uint32_t operation, void* record) {
    uint32_t words[3];
    static_assert(sizeof words == sizeof(nginx_port_rec));
    memcpy(words, record, sizeof words);
    for (uint32_t& word : words) flip(word);
    auto& [http, https, on] = words;
    uint32_t status = SECURITY_OK;
    if (operation == GET_REQ) {
        http = https = on = 0;
        status = get_settings(store, http, https, on);
    } else if (operation == SET_REQ) {
        status = set_settings(store, http, https, on);
    }
    for (uint32_t& word : words) flip(word);
    memcpy(record, words, sizeof words);
    return status;
}

uint32_t web_pair(uint32_t store, uint32_t operation, void* record) {
    auto& text = *static_cast<nginx_cert_rec*>(record);
    if (operation != SET_REQ && operation != DEL_REQ)
        return security_nginx_ssh_key_config(store, operation, &text);
    Incoming incoming;
    uint32_t status = settle(store, incoming);
    if (status == SECURITY_OK)
        status = operation == SET_REQ ? set_item(store, text, incoming) : delete_item(store, text, incoming);
    if (operation == SET_REQ)
        OPENSSL_cleanse(text.text, sizeof text.text);  // a key does not go back to whoever sent it
    return used_when_stored(status);
}

}  // namespace quill
