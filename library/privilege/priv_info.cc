// Secrets of privilege levels: the handler, one record for each level, and the client functions.
//
// A secret that arrives as clear text to be hashed (type 100) is hashed before it is stored. The hash
// string overwrites the start of the field; the rest of the field keeps its bytes, unless the caller
// cleared it first.
#include "base/byte_order.h"
#include "base/coded_secret.h"
#include "base/tables.h"
#include "base/text_field.h"
#include "base/wiped.h"
#include "library/common/request.h"
#include "library/common/store_access.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr int32_t kLastLevel = 15;

// Traces of this handler start with its name and a line number.
#define TRACE(format, ...) \
    trace("%s(%d):" format, "security_priv_info_config", __LINE__ __VA_OPT__(, ) __VA_ARGS__)

Run value_of(security_priv_info& info) {
    return {&info.encryption_type, sizeof info - offsetof(security_priv_info, encryption_type)};
}

// Replaces the clear secret by its hash string. Returns false, with the record unchanged, on failure.
bool hash(security_priv_info& info) {
    TRACE("Not encrypted, encrypting");
    const bool whole = terminated(info.secret);
    CodedSecret hashed;
    if (!whole ||
        security_conf_encrypt(info.secret, SECURITY_ENCRYPTION_HASH, nullptr, 0, hashed.block(),
                              hashed.length()) != SECURITY_OK ||
        !hashed.fits(info.secret)) {
        trace("encryption failed for secret:%s, encryption-type:%d", whole ? info.secret : "",
              SECURITY_ENCRYPTION_HASH);
        return false;
    }
    TRACE("secret hash:%s, secret hash-len:%d encryption-type:%d", hashed.bytes(), hashed.size(),
          SECURITY_ENCRYPTION_HASH);
    hashed.copy_to(info.secret);
    info.encryption_type = SECURITY_ENCRYPTION_HASH;
    info.shadow_style = 1;
    info.salt[0] = '\0';
    info.secret_len = static_cast<int32_t>(hashed.size());
    info.salt_len = 0;
    return true;
}

void words_to_big_endian(security_priv_info& info) {
    TRACE("encryption type before storing in pss: %d", info.encryption_type);
    flip(info.encryption_type);
    TRACE("encryption type stored in pss: %d", info.encryption_type);
    flip(info.secret_len);
    flip(info.shadow_style);
    flip(info.salt_len);
}

void words_to_host_order(security_priv_info& info) {
    flip(info.encryption_type);
    TRACE("encryption_type %d", info.encryption_type);
    flip(info.secret_len);
    TRACE("secret_len %d", info.secret_len);
    flip(info.shadow_style);
    TRACE("shadow_style %s", info.shadow_style != 0 ? "TRUE" : "FALSE");
    flip(info.salt_len);
    TRACE("salt_len %d", info.salt_len);
}

// Traces the platform's text for a status other than 0. Returns the status.
uint32_t trace_failure(uint32_t status) {
    if (status != SECURITY_OK) TRACE("%s", syserr2str(status));
    return status;
}

uint32_t walk(uint32_t handle, const Key& key, security_priv_info& info) {
    const Step step = find_next(handle, key);
    if (step.failed()) return trace_failure(step.status);
    trace("My error");  // not an error: existing logs have this text on every step that succeeds
    if (!key.same_table(step.key)) return SECURITY_ERR_NO_MORE_PRIV_LVLS;
    return trace_failure(read_found(handle, *step.key, info.priv_lvl, value_of(info)));
}

// Expects the words of the value in big-endian order, as they are stored.
uint32_t serve(uint32_t handle, uint32_t operation, security_priv_info& info) {
    const Key key(kPrivLevelsTable, info.priv_lvl);
    switch (operation) {
    case GET_REQ: {
        trace("GET operation for priv_lvl:%d", info.priv_lvl);
        const uint32_t status = fetch(handle, key, value_of(info));
        return status == SECURITY_PSS_NO_KEY ? SECURITY_ERR_NO_PRIV_LVL : trace_failure(status);
    }
    case GETNEXT_REQ:
        trace("GETNEXT for prvi-lvl:%d", info.priv_lvl);
        return walk(handle, key, info);
    case SET_REQ:
        trace("SET operation for prvi_lvl:%d", info.priv_lvl);
        return trace_failure(store(handle, key, value_of(info)));
    case DEL_REQ:
        trace("DELETE operation for priv_lvl:%d", info.priv_lvl);
        return trace_failure(erase(handle, key));
    }
    return SECURITY_OK;  // any other operation does nothing
}

#undef TRACE

}  // namespace
}  // namespace quill

uint32_t security_priv_info_config(uint32_t handle, uint32_t operation, security_priv_info* record) {
    using namespace quill;
    trace("In %s:", __func__);
    if (operation == SET_REQ && record->encryption_type == SECURITY_ENCRYPTION_TO_HASH && !hash(*record))
        return SECURITY_ERR_CRYPT;
    words_to_big_endian(*record);
    const uint32_t status = serve(handle, operation, *record);
    words_to_host_order(*record);
    trace("status for the operation %d: %s", operation, status_text(status));
    return status;
}

uint32_t cmi_security_priv_info_config(uint32_t connection, uint32_t operation, security_priv_info* record) {
    return quill::request(SECURITY_PRIV_INFO_REQUEST, operation, *record, connection);
}

uint32_t cmi_security_priv_info_config_all(uint32_t connection, uint32_t operation,
                                           security_priv_info* record) {
    for (int32_t level = 1; level <= quill::kLastLevel; ++level) {
        record->priv_lvl = level;  // the other fields are those of the last reply
        const uint32_t status = cmi_security_priv_info_config(connection, operation, record);
        if (status != SECURITY_OK) return status;
    }
    return SECURITY_OK;
}

uint32_t cmi_security_priv_info_cleanup(uint32_t connection, uint32_t operation) {
    quill::Wiped<security_priv_info> record;
    uint32_t status = SECURITY_OK;
    for (int32_t level = 1; level <= quill::kLastLevel; ++level) {
        record.priv_lvl = level;
        status = cmi_security_priv_info_config(connection, operation, &record);
        if (status != SECURITY_OK && status != SECURITY_PSS_NO_KEY) return status;
    }
    return quill::no_key_as(SECURITY_OK, status);
}

uint32_t cmi_security_vsh_callback_priv_info_cleanup(uint32_t connection) {
    return cmi_security_priv_info_cleanup(connection, DEL_REQ);
}

uint32_t security_verify_priv_level_secret(uint32_t connection, const char* candidate,
                                           uint32_t candidate_length, int32_t level, uint32_t* matched) {
    *matched = 0;
    quill::Wiped<security_priv_info> record;
    record.priv_lvl = level;
    uint32_t status = cmi_security_priv_info_config(connection, GET_REQ, &record);
    if (status != SECURITY_OK) return status;
    record.secret[sizeof record.secret - 1] = '\0';  // the reply may lack a terminator
    status = security_verify_shadowed_hash(candidate, candidate_length, record.secret,
                                           static_cast<uint32_t>(record.secret_len));
    if (status == SECURITY_OK) *matched = 1;
    return status;
}
