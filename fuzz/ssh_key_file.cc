// Key files of any content, with any output of ssh-keygen: no byte outside a record is accessed, and no
// private key gets into one.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "fuzz/files.h"
#include "library/sshkey/key_text.h"
#include "quillsecurity.h"
#include "tests/fakes/world.h"

namespace {

constexpr char kPath[] = "/tmp/key";
constexpr const char* kPrinted[] = {"",
                                    "x",
                                    "2048 SHA256:x no comment (RSA)\n",
                                    "2048 aa /tmp/key (RSA)\n",
                                    "1024 aa /tmp/key (RSA1)\n",
                                    "/tmp/key is not a public key file.\n"};

unsigned printed_by_import, printed_by_listing;
bool times_out;
std::string other_content;

void check_text(const char* text, size_t size, const char* user_name) {
    if (strnlen(text, size) == size || strcmp(user_name, "amy") != 0) abort();
    if (strstr(text, "---- BEGIN SSH2 ENCRYPTED PRIVATE KEY") != nullptr) abort();
    std::string seen(text);
    std::ranges::replace(seen, '\r', '\n');
    std::istringstream lines(seen);
    for (std::string line; std::getline(lines, line);)
        if (quill::opens_private_key(line.substr(0, 1000))) abort();
}

}  // namespace

// Replaces the library's function.
int32_t security_conf_system(const char* command, const char* out_path, const char*) {
    const unsigned which = strstr(command, " -i ") != nullptr ? printed_by_import : printed_by_listing;
    const char* text = kPrinted[which % std::size(kPrinted)];
    put_file(out_path, text, strlen(text));
    if (!other_content.empty()) put_file(kPath, other_content.data(), other_content.size());
    return times_out ? -1 : 0;
}

// Input: the output of ssh-keygen when it imports and when it lists, the file, and after a form feed its
// content after somebody changes it while ssh-keygen runs.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    world().history = false;
    if (size < 2) return 0;
    printed_by_import = data[0];
    printed_by_listing = data[1];
    times_out = data[1] == 255;
    const std::string content(reinterpret_cast<const char*>(data) + 2, size - 2);
    const size_t end = content.find('\f');
    other_content = end == content.npos ? "" : content.substr(end + 1);
    put_file(kPath, content.data(), std::min(end, content.size()));

    ssh_key_rec record{};
    ssh_key_new_rec new_record{};
    uint8_t format = 99;
    const uint32_t status = copy_sshkey_file_content(kPath, "amy", &record, &new_record, &format);
    if (status == SECURITY_OK && format == SSHKEY_FMT_OPENSSH)
        check_text(record.key_text, sizeof record.key_text, record.user_name);
    else if (status == SECURITY_OK)
        check_text(new_record.key_text, sizeof new_record.key_text, new_record.user_name);
    else if (status < SECURITY_ERR_SSHKEY_CONVERT || status > SECURITY_ERR_FILE_READ ||
             *record.key_text != '\0' || *new_record.key_text != '\0')
        abort();
    unlink(kPath);
    close_all();
    return 0;
}
