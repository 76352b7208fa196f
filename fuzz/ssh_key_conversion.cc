// Conversion of stored keys of any content to OpenSSH lines: certificates and signing lines, in blocks of the
// records' exact size.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "fuzz/files.h"
#include "quillsecurity.h"
#include "tests/fakes/world.h"

// Input: the format (2 or 3), and the text, which is not terminated if it is as long as its field.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    world().history = false;
    if (size == 0) return 0;
    const auto source = std::make_unique<ssh_key_new_rec>();
    const auto target = std::make_unique<ssh_key_rec>();
    const bool certificate = data[0] % 2 == 0;
    source->key_format = certificate ? SSHKEY_FMT_X509_PEM : SSHKEY_FMT_X509V3_SIGN_RSA;
    strcpy(source->user_name, "amy");
    memcpy(source->key_text, data + 1, std::min(size - 1, sizeof source->key_text));

    const uint32_t status = convert_other_ssh_key_to_openssh(source.get(), target.get());
    const size_t length = strnlen(target->key_text, sizeof target->key_text);
    close_all();
    if (length == sizeof target->key_text || !files().empty()) abort();
    if (status == SECURITY_OK) {
        const std::string_view line(target->key_text, length);
        const bool typed = line.starts_with("ssh-rsa AAAA") || line.starts_with("ssh-dss AAAA");
        if (strcmp(target->user_name, "amy") != 0 || (certificate && (!typed || length > 8 + 2096))) abort();
    } else if (length != 0 ||
               (status != SECURITY_ERR_SSHKEY_CONVERT && status != SECURITY_ERR_SSHKEY_FORMAT)) {
        abort();
    }
    return 0;
}
