// Runs a fuzz target once over every kept input of a folder, and over each input cut short at a few places,
// so that the corpus serves as a plain test where libFuzzer is not at hand.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    static const uint8_t nothing = 0;
    LLVMFuzzerTestOneInput(&nothing, 0);
    size_t inputs = 0;
    for (int i = 1; i < argc; i++) {
        if (!std::filesystem::is_directory(argv[i]))
            continue;
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream in(entry.path(), std::ios::binary);
            std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
            for (size_t eighth = 1; eighth <= 8; eighth++) {
                // A copy of the exact size lets the address sanitizer see a read past the end.
                std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + bytes.size() * eighth / 8);
                LLVMFuzzerTestOneInput(cut.empty() ? &nothing : cut.data(), cut.size());
            }
            inputs++;
        }
    }
    std::printf("%zu inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
