// Runs a harness on each file of its corpus, and on each prefix of it.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void replay(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    for (size_t size = 0; size <= bytes.size(); ++size) {
        // A copy of exactly this size, so that the sanitizer sees reads beyond it.
        const std::vector<uint8_t> input(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size));
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
}

}  // namespace

int main(int count, char** arguments) {
    size_t files = 0;
    for (int i = 1; i < count; ++i)
        for (const auto& entry : std::filesystem::recursive_directory_iterator(arguments[i])) {
            if (!entry.is_regular_file()) continue;
            replay(entry.path());
            ++files;
        }
    printf("%zu inputs replayed\n", files);
    return files == 0 ? 1 : 0;
}
