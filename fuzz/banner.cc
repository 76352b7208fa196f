// Banner files of any content are read or refused, within the documented sizes.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quillsecurity.h"
#include "tests/fakes/world.h"

namespace {

// Not cleared between inputs, which would take longer than reading most of them does.
char output[SECURITY_BANNER_TEXT_SIZE];

int32_t read(int32_t (*reader)(char*, FILE*), const uint8_t* data, size_t size) {
    FILE* stream = size == 0 ? fopen("/dev/null", "r") : fmemopen(const_cast<uint8_t*>(data), size, "r");
    if (stream == nullptr) abort();
    const int32_t count = reader(output, stream);
    fclose(stream);
    return count;
}

}  // namespace

// Input: the file.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const auto reader : {security_read_banner_motd_msg, security_read_banner_motd_msg_with_delimiter}) {
        const int32_t count = read(reader, data, size);
        if (size >= SECURITY_BANNER_FILE_LIMIT ? count != -1 : count < 0) abort();
        if (count >= 0 && strnlen(output, sizeof output) != static_cast<size_t>(count)) abort();
        if (count > static_cast<int32_t>(size * 11 / 2 + 1)) abort();
    }
    return 0;
}
