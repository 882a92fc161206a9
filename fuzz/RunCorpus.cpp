#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

/** Runs all files of the folder once; without one it fails. */
int main(int argc, char **argv) {
    unsigned count = 0;
    std::error_code problem;
    for (const auto &entry : std::filesystem::directory_iterator(argc > 1 ? argv[1] : "", problem)) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        // A block of exactly that size, so that a sanitizer sees a read behind it.
        const std::unique_ptr<std::uint8_t[]> data(new std::uint8_t[bytes.size()]);
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            data[i] = static_cast<std::uint8_t>(bytes[i]);
        }
        LLVMFuzzerTestOneInput(data.get(), bytes.size());
        ++count;
    }
    std::printf("%u inputs\n", count);
    return count != 0 ? 0 : 1;
}
