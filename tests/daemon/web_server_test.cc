// What the daemon takes and refuses about the web server, through its own routes and over a real store.
#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "daemon/activation.h"
#include "tests/daemon/routes_test.h"
#include "tests/support/store.h"

namespace {

std::string taken(BIO* bio) {
    char* bytes = nullptr;
    const auto length = static_cast<size_t>(BIO_get_mem_data(bio, &bytes));
    std::string text(bytes, length);
    BIO_free(bio);
    return text;
}

// A key and certificates of it.
struct Keys {
    EVP_PKEY* key;

    explicit Keys(EVP_PKEY* made = EVP_EC_gen("P-256")) : key(made) {}
    ~Keys() { EVP_PKEY_free(key); }
    Keys(const Keys&) = delete;
    Keys& operator=(const Keys&) = delete;

    std::string pem(const char* passphrase = nullptr) const {
        BIO* bio = BIO_new(BIO_s_mem());
        PEM_write_bio_PrivateKey(bio, key, passphrase ? EVP_aes_128_cbc() : nullptr, nullptr, 0, nullptr,
                                 const_cast<char*>(passphrase));
        return taken(bio);
    }
    std::string certificate(long seconds_left, const EVP_MD* digest = EVP_sha256()) const {
        X509* made = X509_new();
        X509_set_pubkey(made, key);
        X509_gmtime_adj(X509_getm_notBefore(made), -100);
        X509_gmtime_adj(X509_getm_notAfter(made), seconds_left);
        X509_sign(made, key, digest);
        BIO* bio = BIO_new(BIO_s_mem());
        PEM_write_bio_X509(bio, made);
        X509_free(made);
        return taken(bio);
    }
};

class WebServerRequests : public RoutesTest {
 protected:
    void reopen() {
        pss2_close(store);
        EXPECT_EQ(0u, security_pss_create(&store, "security", 0, 0));
    }
    uint32_t send(uint32_t item, const std::string& text) {
        const uint32_t status = ask(SECURITY_NGINX_CERT_REQUEST, SET_REQ, web_text(item, text));
        EXPECT_EQ("", std::string(returned(4, 2100).c_str())) << "a key is not returned";
        return status;
    }
    std::string stored(uint32_t item) {
        const uint32_t status = ask(SECURITY_NGINX_CERT_REQUEST, GET_REQ, web_text(item, ""));
        return status == SECURITY_OK ? returned(4, 2100).c_str() : "none";
    }
    uint32_t enable() { return ask(SECURITY_NGINX_CERT_REQUEST, SET_REQ, web_text(0, "", 1)); }
    uint32_t remove_certificate() { return ask(SECURITY_NGINX_CERT_REQUEST, DEL_REQ, web_text(0, "")); }

    uint32_t configure(uint32_t http, uint32_t https, uint32_t on) {
        return ask(SECURITY_NGINX_PORT_REQUEST, SET_REQ, web(http, https, on));
    }
    std::string configured() {
        EXPECT_EQ(SECURITY_OK, ask(SECURITY_NGINX_PORT_REQUEST, GET_REQ, web(7, 7, 7), kOther));
        return returned(0, 12);
    }
    uint32_t set_service(uint32_t code, uint32_t value) {
        return ask(SECURITY_ENABLE_INFO_REQUEST, SET_REQ, service(code, value));
    }
    // Its value, or the status of a failure.
    std::string get_service(uint32_t code) {
        const uint32_t status = ask(SECURITY_ENABLE_INFO_REQUEST, GET_REQ, service(code, 5));
        return status == SECURITY_OK ? returned(4, 4) : word(status);
    }
};

TEST_F(WebServerRequests, OnlyAPairThatServesReplacesTheOldOne) {
    const Keys first, second;
    const std::string certificate = first.certificate(1000), other = second.certificate(1000);
    EXPECT_EQ(SECURITY_ERR_WEB_INCOMPLETE, enable());
    EXPECT_EQ(SECURITY_OK, send(0, first.certificate(1000, EVP_sha1())))
        << "nobody verifies its own signature";
    EXPECT_EQ(SECURITY_OK, send(0, certificate));
    EXPECT_EQ(SECURITY_ERR_WEB_INCOMPLETE, enable());
    EXPECT_EQ(SECURITY_ERR_WEB_MISMATCH, send(1, second.pem()));
    EXPECT_EQ("none", stored(1));
    EXPECT_EQ(SECURITY_OK, send(1, first.pem()));
    EXPECT_EQ(SECURITY_OK, enable());

    const struct {
        const char* what;
        uint32_t item;
        std::string text;
        uint32_t want;
    } refused[] = {
        {"an expired certificate", 0, first.certificate(-10), SECURITY_ERR_WEB_EXPIRED},
        {"a certificate of a weak key", 0, Keys(EVP_RSA_gen(1024)).certificate(1000), SECURITY_ERR_WEB_WEAK},
        {"no certificate", 0, "nonsense", SECURITY_ERR_WEB_CERTIFICATE},
        {"half a certificate", 0, certificate.substr(0, certificate.size() / 2),
         SECURITY_ERR_WEB_CERTIFICATE},
        {"a key for a certificate", 0, first.pem(), SECURITY_ERR_WEB_CERTIFICATE},
        {"no key", 1, "", SECURITY_ERR_WEB_KEY},
        {"a key with a passphrase", 1, first.pem("secret"), SECURITY_ERR_WEB_KEY},
        {"another's key", 7, second.pem(), SECURITY_ERR_WEB_MISMATCH},
    };
    for (const auto& c : refused) {
        EXPECT_EQ(c.want, send(c.item, c.text)) << c.what;
        EXPECT_EQ(certificate, stored(0)) << c.what;
        EXPECT_EQ(first.pem(), stored(1)) << c.what;
        EXPECT_EQ(SECURITY_OK, enable()) << c.what;
    }

    EXPECT_EQ(SECURITY_OK, send(0, other));
    reopen();
    EXPECT_EQ(certificate, stored(0)) << "it waits for its key";
    EXPECT_EQ(SECURITY_ERR_WEB_INCOMPLETE, enable());
    EXPECT_EQ(SECURITY_ERR_WEB_MISMATCH, send(1, first.pem()));
    EXPECT_EQ(SECURITY_OK, send(1, second.pem()));
    EXPECT_EQ(other, stored(0));
    EXPECT_EQ(second.pem(), stored(1));
    EXPECT_EQ(SECURITY_OK, enable());

    EXPECT_EQ(SECURITY_OK, send(0, second.certificate(2)));  // renewed, with the same key
    sleep(2);
    EXPECT_EQ(SECURITY_ERR_WEB_EXPIRED, enable());
    EXPECT_EQ(SECURITY_ERR_WEB_MISMATCH, send(1, first.pem())) << "whatever its certificate's date";
    EXPECT_EQ(second.pem(), stored(1));
    EXPECT_EQ(SECURITY_OK, send(1, second.pem()));
    EXPECT_EQ(SECURITY_OK, send(0, certificate));
    EXPECT_EQ(SECURITY_OK, remove_certificate());
    EXPECT_EQ("none", stored(0));
    EXPECT_EQ(SECURITY_OK, send(1, second.pem())) << "nor does one wait";
}

// Byte for byte what daemons store before they store a pair, so that an updated one completes the change.
TEST_F(WebServerRequests, JournalEntriesOfEarlierVersionsAreCompleted) {
    const Keys first, second;
    const std::string journal("\0\1\0\1", 4);
    const auto interrupted = [&](uint32_t complete, const std::string& certificate, const std::string& key) {
        std::string entry(reinterpret_cast<const char*>(&complete), 4);
        entry.append(certificate).resize(4 + 2100);
        entry.append(key).resize(4 + 2 * 2100);
        EXPECT_EQ(PSS_OK, put(store, journal, entry));
        reopen();
    };
    interrupted(1, first.certificate(1000), first.pem());
    EXPECT_EQ(SECURITY_OK, enable());
    EXPECT_EQ(first.pem(), stored(1));
    EXPECT_EQ("[40480003]", fetch(store, journal)) << "completed";
    interrupted(1, second.certificate(1000), second.pem());
    setenv("SYSMGR_VDC_ID", "2", 1);
    quill::activate_all(store);  // at the daemon's start
    unsetenv("SYSMGR_VDC_ID");
    EXPECT_EQ(second.pem(), stored(1));
    interrupted(0, second.certificate(1000), "");
    EXPECT_EQ(SECURITY_ERR_WEB_INCOMPLETE, enable());
    EXPECT_EQ(SECURITY_OK, send(1, second.pem()));
    EXPECT_EQ(second.pem(), stored(1));
    EXPECT_EQ(PSS_OK, put(store, journal, std::string(5000, 'x')));
    EXPECT_EQ(SECURITY_OK, enable()) << "is not ours";
}

TEST_F(WebServerRequests, TwoRequestTypesSetOnePort) {
    EXPECT_EQ(web(0, 0, 0), configured());
    EXPECT_EQ(word(SECURITY_ERR_NO_VALUE), get_service(22));
    EXPECT_EQ(SECURITY_OK, configure(8080, 8443, 1));
    EXPECT_EQ(word(8080), get_service(22));
    EXPECT_EQ(word(1), get_service(21));

    for (const auto& [http, https, on] :
         {std::tuple{80, 443, 2}, {80, 80, 1}, {65536, 443, 1}, {80, 65536, 1}})
        EXPECT_EQ(SECURITY_ERR_WEB_SETTINGS, configure(http, https, on)) << http << " " << https << " " << on;
    for (const auto& [code, value] : {std::pair{22, 8443}, {22, 65536}, {21, 2}})
        EXPECT_EQ(SECURITY_ERR_WEB_SETTINGS, set_service(code, value)) << code << " " << value;
    EXPECT_EQ(SECURITY_OK, ask(SECURITY_ENABLE_INFO_REQUEST, DEL_REQ, service(23, 0)));
    EXPECT_EQ(web(8080, 8443, 1), configured());

    EXPECT_EQ(SECURITY_OK, set_service(23, 443));
    EXPECT_EQ(SECURITY_OK, set_service(21, 0));
    EXPECT_EQ(web(8080, 443, 0), configured());
    EXPECT_EQ(SECURITY_OK, configure(0, 65535, 1));
    EXPECT_EQ(web(0, 65535, 1), configured());
    EXPECT_EQ(SECURITY_OK, configure(0, 0, 1)) << "no port is set twice";
    EXPECT_EQ(web(0, 0, 1), configured());
}

}  // namespace
