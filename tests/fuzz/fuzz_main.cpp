// One target, FUZZ_TARGET, as libFuzzer calls it.
//
// usage: fuzz_NAME [OPTION-OF-LIBFUZZER ...] CORPUS ...
//        fuzz_NAME --seeds DIRECTORY   writes what a corpus begins with into the directory, and the
//                                      words of inputs into DIRECTORY.dict; prints the length of
//                                      the longest input
#include "tests/fuzz/target.h"
#include "tests/support/tempdir.h"

#include <cstdio>
#include <cstring>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static std::string dictionary(const std::vector<std::string> &words)
{
    std::string text = "# words of inputs\n"; // libFuzzer takes no empty file
    for (const std::string &word : words) {
        text += '"';
        for (const char c : word) {
            char code[8];
            (void)snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned char>(c)); // fits
            text += code;
        }
        text += "\"\n";
    }
    return text;
}

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    if (*argc != 3 || strcmp((*argv)[1], "--seeds") != 0)
        return 0;
    const std::string at = (*argv)[2];
    std::filesystem::create_directories(at);
    int number = 0;
    for (const std::string &seed : FUZZ_TARGET.seeds())
        write_file(at + "/seed-" + std::to_string(++number), seed);
    write_file(at + ".dict", dictionary(FUZZ_TARGET.words != nullptr ? FUZZ_TARGET.words()
                                                                     : std::vector<std::string>()));
    printf("%zu\n", FUZZ_TARGET.longest);
    exit(0);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size <= FUZZ_TARGET.longest)
        FUZZ_TARGET.run({reinterpret_cast<const char *>(data), size});
    return 0;
}
