// Runs a fuzz target once over every kept input of a folder, and over each input cut short at a few places,
// so that the corpus serves as a plain test where libFuzzer is not at hand.

#include "fuzz_input.h"

int main(int, char **argv)
{
    static const uint8_t nothing = 0;
    fuzz({&nothing, 0});
    size_t inputs = 0;
    for (const auto &entry : std::filesystem::directory_iterator(argv[1])) {
        const std::string bytes = read_text(entry.path());
        for (size_t eighth = 1; eighth <= 8; eighth++) {
            // A copy of the exact size lets the address sanitizer see a read past the end.
            std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + bytes.size() * eighth / 8);
            fuzz({cut.empty() ? &nothing : cut.data(), cut.size()});
        }
        inputs++;
    }
    return inputs > 0 ? 0 : 1;
}
