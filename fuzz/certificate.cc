// Certificate and key files of any content become a text that is terminated within its field, or are refused.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quillsecurity.h"
#include "tests/fakes/world.h"

namespace {

constexpr char kPath[] = "/certificate";

const uint8_t* content;
size_t content_size;

}  // namespace

// The input is the content of one file.
extern "C" FILE* fopen(const char* path, const char* mode) {
    static const auto kReal =
        reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
    if (strcmp(path, kPath) != 0) return kReal(path, mode);
    return content_size == 0 ? kReal("/dev/null", mode)
                             : fmemopen(const_cast<uint8_t*>(content), content_size, mode);
}

// Input: the file.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    world().history = false;
    content = data;
    content_size = size;
    nginx_cert_rec record;
    memset(&record, '~', sizeof record);
    const uint32_t status = copy_nginx_file_content(kPath, &record, 5);
    const size_t length = strnlen(record.text, sizeof record.text);
    const bool text = status == SECURITY_OK && length <= size && length < sizeof record.text;
    if (!text && status != SECURITY_ERR_CERT_TOO_BIG) abort();
    if (record.item != 5 || record.enable != 0x7e7e7e7e) abort();
    return 0;
}
