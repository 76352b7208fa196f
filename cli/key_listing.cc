#include "cli/key_listing.h"

#include <fstream>
#include <sstream>

#include "cli/private_tmp.h"
#include "cli/words.h"
#include "quillsecurity.h"

namespace quill::cli {

// The output looks like "2048 SHA256:... some comment (RSA)".
std::optional<KeyListing> list_key(const std::string& line) {
    const OwnFolder folder;
    if (!folder.made()) return std::nullopt;
    std::ofstream(folder.file("key")) << line << '\n';
    const std::string command = "ssh-keygen -l -f " + folder.file("key");
    if (security_conf_system(command.c_str(), folder.file("out").c_str(), folder.file("err").c_str()) != 0)
        return std::nullopt;
    std::string printed, bits, fingerprint;
    std::ifstream out(folder.file("out"));
    std::getline(out, printed);
    std::istringstream(printed) >> bits >> fingerprint;
    const auto size = number(bits, 1, 1000000);
    const size_t type = printed.rfind(" (");
    if (!size || type == std::string::npos || printed.back() != ')') return std::nullopt;
    return KeyListing{*size, fingerprint, printed.substr(type + 2, printed.size() - type - 3)};
}

}  // namespace quill::cli
