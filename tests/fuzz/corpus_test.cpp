// What fuzzers have found goes on being read: each target's seeds, its saved inputs, and some
// fixed changes of each.
#include "tests/fuzz/target.h"
#include "tests/support/tempdir.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>

static void PrintTo(const fuzz_target *target, std::ostream *out)
{
    *out << target->name;
}

class FuzzCorpus : public testing::TestWithParam<const fuzz_target *> {
  protected:
    void run(const std::string &input) const
    {
        // In memory of its own length, which the sanitizers watch.
        const std::unique_ptr<char[]> exact(new char[input.size()]);
        input.copy(exact.get(), input.size());
        GetParam()->run({exact.get(), input.size()});
    }

    // Saved inputs in the order of their names.
    std::vector<std::string> saved() const
    {
        std::vector<std::string> paths;
        const std::string folder = KESTRO_SOURCE_DIR "/tests/fuzz/corpus/";
        for (const auto &entry : std::filesystem::directory_iterator(folder + GetParam()->name))
            paths.push_back(entry.path());
        std::sort(paths.begin(), paths.end());
        return paths;
    }
};

// A few bytes changed, taken out or put in twice; the same ones in each run.
static std::string changed(std::string input, std::minstd_rand &random)
{
    for (int n = 0; n < 3 && !input.empty(); n++) {
        const size_t at = random() % input.size();
        switch (random() % 4) {
        case 0:
            input[at] = static_cast<char>(random());
            break;
        case 1:
            input[at] = static_cast<char>(input[at] ^ 1 << random() % 8);
            break;
        case 2:
            input.erase(at, 1 + random() % 8);
            break;
        default:
            input.insert(at, input, at, 1 + random() % 8);
        }
    }
    return input;
}

TEST_P(FuzzCorpus, SeedsAgree)
{
    for (const std::string &input : GetParam()->seeds()) {
        ASSERT_LE(input.size(), GetParam()->longest);
        run(input);
    }
}

TEST_P(FuzzCorpus, SavedInputsAndChangesOfThemAgree)
{
    const std::vector<std::string> paths = saved();
    EXPECT_FALSE(paths.empty());
    for (const std::string &path : paths) {
        SCOPED_TRACE(path);
        const std::string input = read_file(path);
        run(input);
        std::minstd_rand random(static_cast<unsigned>(input.size()));
        for (int n = 0; n < 2; n++) {
            const std::string other = changed(input, random);
            if (other.size() <= GetParam()->longest)
                run(other);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzCorpus,
                         testing::ValuesIn(fuzz_targets().begin(), fuzz_targets().end()),
                         [](const auto &given) { return std::string(given.param->name); });
