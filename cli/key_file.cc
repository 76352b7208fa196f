#include "cli/key_file.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "base/file.h"
#include "cli/key_listing.h"
#include "cli/private_tmp.h"
#include "cli/stored_key.h"
#include "quillplatform/shell.h"

namespace quill::cli {
namespace {

constexpr size_t kLargestFile = 65536;  // more than any public key takes
constexpr size_t kLongestLine = 2098;

// The result of checking the copy, filled in by a child process.
struct Reading {
    int error;  // 0, or the errno of making the copy
    uint32_t status;
    uint8_t format;
    ssh_key_rec line;
    ssh_key_new_rec text;
    uint32_t conversion;
    ssh_key_rec converted;  // of text
};

Failure refused(const NamedFile& file, const std::string& what, std::string remedy) {
    return {Exit::kInvalidValue, file.object(), fmt::format("{}: {}", file.object(), what),
            std::move(remedy)};
}

Failure unknown_place(const NamedFile& file, const char* places, const char* remedy) {
    return refused(file, fmt::format("it is not named by {}", places), remedy);
}

// Returns an errno, or 0.
int copy_to(const std::string& path, std::string_view bytes) {
    NewFile file(path, 0600);
    return file && file.write(bytes) && file.keep() ? 0 : errno;
}

void read_copy(const std::string& path, const std::string& user, Reading& reading) {
    reading.status =
        copy_sshkey_file_content(path.c_str(), user.c_str(), &reading.line, &reading.text, &reading.format);
    if (reading.status != SECURITY_OK || reading.format == SSHKEY_FMT_OPENSSH) return;
    ssh_key_new_rec source = reading.text;  // converting may change it
    reading.conversion = convert_other_ssh_key_to_openssh(&source, &reading.converted);
}

// The library refuses private keys as well; but then there would be a copy, and a less precise message.
bool has_private_key(std::string_view text) {
    return text.find("PRIVATE KEY ----") != text.npos || text.find("PRIVATE KEY-----") != text.npos;
}

void check_line(const NamedFile& file, const ssh_key_rec& record) {
    if (strpbrk(record.key_text, "\r\n") == nullptr && strlen(record.key_text) > kLongestLine) {
        throw refused(file, fmt::format("its line is longer than {} characters", kLongestLine),
                      "use a key of fewer bits");
    }
    if (!list_key(first_line(record.key_text))) {
        throw refused(file, "its first line holds no key, and no other line is read",
                      "put the key into the first line");
    }
}

void check_text(const NamedFile& file, const Reading& reading) {
    if (reading.conversion != SECURITY_OK || first_line(reading.converted.key_text).empty()) {
        throw refused(file, "its key cannot be made a line of OpenSSH text",
                      "use an RSA or DSA key, or one in OpenSSH's own format");
    }
}

// Like the library's own requests of this type, whose reply has no record.
template <class Record>
uint32_t send_record(Record& record) {
    uint32_t length = sizeof record;
    return status_of(static_cast<uint32_t>(
        security_cmi(SECURITY_SSHKEY_FILE_REQUEST, SET_REQ, &record, nullptr, &length, 0)));
}

}  // namespace

KeyFile::KeyFile(const NamedFile& file, const std::string& user)
    : file_(file),
      input_(file, kLargestFile, file.on_device ? InputFile::kFollowLast : InputFile::kRefuseLast) {
    read(user);
}

void KeyFile::read(const std::string& user) {
    if (has_private_key(input_.bytes()))
        throw refused(file_, "it holds a private key", "give the public key; ssh-keygen -y prints it");
    const Shared<Reading> reading;
    with_private_tmp([&](const std::string& path) {
        reading->error = copy_to(path, input_.bytes());
        if (reading->error == 0) read_copy(path, user, *reading);
    });
    if (reading->error != 0) throw file_failure("/tmp", reading->error);
    require_success(reading->status, file_.object(), "read");
    if (reading->format == SSHKEY_FMT_OPENSSH)
        check_line(file_, reading->line);
    else
        check_text(file_, *reading);
    format_ = reading->format;
    line_ = reading->line;
    text_ = reading->text;
}

uint32_t KeyFile::send() { return format_ == SSHKEY_FMT_OPENSSH ? send_record(line_) : send_record(text_); }

NamedFile key_file_named(const std::string& name) {
    NamedFile file = file_named(name);
    if (file.on_device || name.starts_with('/')) return file;
    throw unknown_place(file, "a device of this system or a path from the root",
                        "use bootflash:PATH, volatile:PATH, slot0:PATH or /PATH");
}

NamedFile device_key_file_named(const std::string& name) {
    NamedFile file = file_named(name);
    if (file.on_device) return file;
    throw unknown_place(file, "a device of this system", "use bootflash:PATH, volatile:PATH or slot0:PATH");
}

}  // namespace quill::cli
