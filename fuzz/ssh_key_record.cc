// Both handlers of users' keys, with sequences of arbitrary requests: a user never has two keys, and values
// have the size of their table.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "library/common/store_access.h"
#include "quillsecurity.h"
#include "tests/fakes/world.h"

namespace {

// Takes operation, length and character of the name. A name of 128 bytes does not fit.
template <class Record>
void request(uint32_t (*config)(uint32_t, uint32_t, Record*), const uint8_t* bytes) {
    Record record{};
    memset(record.user_name, 'a' + bytes[2] % 3, std::min<size_t>(bytes[1] % 4 == 3 ? 128 : bytes[1], 128));
    memset(record.key_text, bytes[2], sizeof record - sizeof record.user_name);
    const uint32_t operation = bytes[0] / 2 % 6;
    const bool touches = quill::is_record_operation(operation);
    const bool ends = !touches || memchr(record.user_name, '\0', sizeof record.user_name) != nullptr;
    const uint32_t status = config(kHandle, operation, &record);
    if (ends == (status == SECURITY_ERR_REQUEST_TEXT)) abort();
    if (touches && status == SECURITY_OK &&
        memchr(record.user_name, '\0', sizeof record.user_name) == nullptr)
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    world() = World();
    world().history = false;
    for (; size >= 3; data += 3, size -= 3) {
        if (data[0] % 2 == 0)
            request(security_user_ssh_key_config, data);
        else
            request(security_user_ssh_key_new_config, data);
        for (const auto& [key, value] : world().store) {
            const bool first = key[3] == 6;
            if (key.size() != 132 || value.size() != (first ? 2200u : 8193u)) abort();
            if (first && world().store.contains(be32(21) + key.substr(4))) abort();
        }
    }
    return 0;
}
