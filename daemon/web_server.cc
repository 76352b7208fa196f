// A certificate and a key that are both in the store always belong together. A new certificate that the
// stored key does not fit waits in a journal entry until its key is sent; then both are stored. Storing a
// pair takes two writes, so it is written to the journal first: after a daemon was killed between the two,
// the next one completes them before it uses or changes the pair.
#include "daemon/web_server.h"

#include <openssl/crypto.h>

#include <cstring>

#include "base/byte_order.h"
#include "base/text_field.h"
#include "base/wiped.h"
#include "daemon/activation.h"
#include "daemon/certificate.h"
#include "daemon/journal.h"
#include "quillplatform.h"

namespace quill {
namespace {

constexpr uint32_t kHighestPort = 65535;

// A certificate or a key in PEM form, in the store or in a request.
struct PemRecord : Wiped<nginx_cert_rec> {
    explicit PemRecord(uint32_t which) { item = which; }
};

// The journal entry. An empty text means that there is none.
struct PendingPair {
    uint32_t complete;  // 1: to be stored; 0: the certificate waits for its key
    char certificate[sizeof nginx_cert_rec::text];
    char key[sizeof nginx_cert_rec::text];
};
static_assert(sizeof(PendingPair) == 4 + 2 * 2100, "entries of earlier versions are read");
using Pending = Wiped<PendingPair>;

const Journal<PendingPair> kJournal(kWebServerJournal);

uint32_t get(uint32_t store, PemRecord& record) {
    return security_nginx_ssh_key_config(store, GET_REQ, &record);
}

// Does nothing for an empty text.
uint32_t put(uint32_t store, uint32_t item, const char* text) {
    if (*text == '\0') return SECURITY_OK;
    PemRecord record(item);
    set_text(record.text, text);
    return security_nginx_ssh_key_config(store, SET_REQ, &record);
}

uint32_t missing_is_fine(uint32_t status) { return status == SECURITY_PSS_NO_KEY ? SECURITY_OK : status; }

uint32_t erase_entry(uint32_t store) { return missing_is_fine(kJournal.erase(store)); }

// Leaves `pending` empty if there is no entry, or one of another size, which is not ours.
uint32_t read_entry(uint32_t store, Pending& pending) {
    const uint32_t status = kJournal.find(store, pending);
    if (status == SECURITY_PSS_NO_KEY || status == SECURITY_ERR_REQUEST_SIZE) return SECURITY_OK;
    terminate(pending.certificate);
    terminate(pending.key);
    return status;
}

// Completes an interrupted change: stores the pair of a complete entry, and fails until that succeeds. What
// is left in `pending` is a certificate that waits for its key, or nothing.
uint32_t complete_pending(uint32_t store, Pending& pending) {
    uint32_t status = read_entry(store, pending);
    if (status != SECURITY_OK || pending.complete == 0) return status;
    status = put(store, SECURITY_WEB_KEY, pending.key);
    if (status == SECURITY_OK) status = put(store, SECURITY_WEB_CERTIFICATE, pending.certificate);
    if (status == SECURITY_OK) status = erase_entry(store);
    if (status != SECURITY_OK) return status;
    explicit_bzero(static_cast<PendingPair*>(&pending), sizeof(PendingPair));
    return SECURITY_OK;
}

uint32_t store_pair(uint32_t store, Pending& pending) {
    pending.complete = 1;
    const uint32_t status = kJournal.write(store, pending);
    return status == SECURITY_OK ? complete_pending(store, pending) : status;
}

uint32_t set_certificate(uint32_t store, const nginx_cert_rec& record, Pending& pending) {
    const Certificate certificate = read_certificate(record.text);
    uint32_t status = check_certificate(certificate);
    if (status != SECURITY_OK) return status;
    PemRecord key(SECURITY_WEB_KEY);
    status = get(store, key);
    if (status != SECURITY_OK && status != SECURITY_PSS_NO_KEY) return status;
    const PrivateKey stored = status == SECURITY_OK ? read_key(key.text) : nullptr;
    set_text(pending.certificate, record.text);  // replaces another one that waited
    if (stored == nullptr || belong_together(certificate, stored)) return store_pair(store, pending);
    return kJournal.write(store, pending);
}

// Checks that the key fits the stored certificate, if there is one, even if that certificate has expired.
uint32_t check_key(uint32_t store, const PrivateKey& key) {
    PemRecord stored(SECURITY_WEB_CERTIFICATE);
    const uint32_t status = get(store, stored);
    if (status != SECURITY_OK) return missing_is_fine(status);
    const Certificate certificate = read_certificate(stored.text);
    return certificate == nullptr || belong_together(certificate, key) ? SECURITY_OK
                                                                       : SECURITY_ERR_WEB_MISMATCH;
}

uint32_t set_key(uint32_t store, const nginx_cert_rec& record, Pending& pending) {
    const PrivateKey key = read_key(record.text);
    if (key == nullptr) return SECURITY_ERR_WEB_KEY;
    const bool awaited = *pending.certificate != '\0';
    const uint32_t status = awaited ? check_pair(pending.certificate, record.text) : check_key(store, key);
    if (status != SECURITY_OK) return status;
    set_text(pending.key, record.text);
    return store_pair(store, pending);
}

uint32_t enable(uint32_t store, const Pending& pending) {
    WebServer web;
    const uint32_t status = read_web_server(store, web);
    if (status != SECURITY_OK) return status;
    // The request means the certificate that was sent last. If that waits for its key, it cannot be used.
    return *pending.certificate == '\0' ? web.pair : SECURITY_ERR_WEB_INCOMPLETE;
}

uint32_t set_item(uint32_t store, const nginx_cert_rec& record, Pending& pending) {
    if (record.enable != 0) return enable(store, pending);
    return record.item == SECURITY_WEB_CERTIFICATE ? set_certificate(store, record, pending)
                                                   : set_key(store, record, pending);
}

uint32_t delete_item(uint32_t store, nginx_cert_rec& record, const Pending& pending) {
    if (record.item == SECURITY_WEB_CERTIFICATE && *pending.certificate != '\0') {
        const uint32_t status = erase_entry(store);
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

bool ports_fit(uint32_t http, uint32_t https) {
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
    if (!ports_fit(http, https) || on > 1) return SECURITY_ERR_WEB_SETTINGS;
    uint32_t status = set_port(store, SECURITY_SERVICE_PLOTY_HTTP_PORT, http);
    if (status == SECURITY_OK) status = set_port(store, SECURITY_SERVICE_PLOTY_HTTPS_PORT, https);
    if (status == SECURITY_OK) status = enable_info_config(store, SET_REQ, SECURITY_SERVICE_PLOTY, &on);
    activate_later(Setting::kWebServer);  // also after a failure: some settings may be stored
    return status;
}

uint32_t activate_if_stored(uint32_t status) {
    if (status == SECURITY_OK) activate_later(Setting::kWebServer);
    return status;
}

}  // namespace

WebServer::~WebServer() { OPENSSL_cleanse(key.data(), key.size()); }

uint32_t read_web_server(uint32_t store, WebServer& web) {
    uint32_t on = 0;
    Pending pending;
    uint32_t status = complete_pending(store, pending);
    if (status == SECURITY_OK) status = get_settings(store, web.http_port, web.https_port, on);
    if (status != SECURITY_OK) return status;
    web.on = on != 0;
    PemRecord certificate(SECURITY_WEB_CERTIFICATE), key(SECURITY_WEB_KEY);
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
    return activate_if_stored(enable_info_config(store, operation, SECURITY_SERVICE_PLOTY, &info.value));
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
    if (operation != SET_REQ) return SECURITY_OK;  // the values of services are never removed
    const bool http = item == SECURITY_SERVICE_PLOTY_HTTP_PORT;
    uint32_t other = 0;
    const uint32_t status =
        get_port(store, http ? SECURITY_SERVICE_PLOTY_HTTPS_PORT : SECURITY_SERVICE_PLOTY_HTTP_PORT, other);
    if (status != SECURITY_OK) return status;
    if (!ports_fit(info.value, other)) return SECURITY_ERR_WEB_SETTINGS;
    return activate_if_stored(set_port(store, item, info.value));
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
    Pending pending;
    uint32_t status = complete_pending(store, pending);
    if (status == SECURITY_OK)
        status = operation == SET_REQ ? set_item(store, text, pending) : delete_item(store, text, pending);
    if (operation == SET_REQ) OPENSSL_cleanse(text.text, sizeof text.text);  // a key is not sent back
    return activate_if_stored(status);
}

}  // namespace quill
