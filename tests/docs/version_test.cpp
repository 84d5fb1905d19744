// One version: of the build, of the program, and of what the changelog tells last.
#include "driver/help.h"
#include "tests/support/markdown.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>

TEST(Version, BuildProgramAndChangelogAgree)
{
    const std::string build = read_file(KESTRO_SOURCE_DIR "/CMakeLists.txt");
    EXPECT_THAT(build,
                testing::HasSubstr("project(Kestro VERSION " + std::string(PROGRAM_VERSION) + " "));
    const std::string changes = md_page("CHANGELOG.md");
    const size_t heading = changes.find("\n## ") + 4;
    EXPECT_EQ(changes.substr(heading, changes.find('\n', heading) - heading), PROGRAM_VERSION);
}
