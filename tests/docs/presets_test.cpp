// The presets that pages name are those of CMakePresets.json.
#include "tests/support/markdown.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>
#include <regex>

// The names that can be given to cmake --preset, in their order.
static std::vector<std::string> presets()
{
    const std::string text = read_file(KESTRO_SOURCE_DIR "/CMakePresets.json");
    const std::string part =
        text.substr(text.find("\"configurePresets\""),
                    text.find("\"buildPresets\"") - text.find("\"configurePresets\""));
    static const std::regex name("\"name\": \"([^\"]+)\",\\s*(\"hidden\": true)?");
    std::vector<std::string> names;
    for (std::sregex_iterator at(part.begin(), part.end(), name), end; at != end; ++at) {
        if (!(*at)[2].matched)
            names.push_back((*at)[1]);
    }
    return names;
}

TEST(Presets, DebuggingPageSaysWhatEachIsFor)
{
    std::vector<std::string> shown;
    for (const auto &row : md_find_table(md_page("docs/debugging.md"), "preset").rows)
        shown.push_back(md_code(row[0]).at(0));
    EXPECT_EQ(shown, presets());
}

TEST(Presets, ContributingNamesEach)
{
    std::string sentence = "The presets are ";
    const std::vector<std::string> names = presets();
    for (size_t i = 0; i < names.size(); i++) {
        if (i > 0)
            sentence += i + 1 == names.size() ? " and " : ", ";
        sentence += "`" + names[i] + "`";
    }
    EXPECT_THAT(md_page("CONTRIBUTING.md"), testing::HasSubstr(sentence));
}
