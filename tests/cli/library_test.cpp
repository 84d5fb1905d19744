// How the program finds its forward-log library.
#include "tests/cli/cli_fixture.h"

class CliLibrary : public Cli {};

static bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

TEST_F(CliLibrary, NamesTheLibraryAndLooksForItBesideItself)
{
    const run_result result = run_program({"readelf", "-d", program});
    ASSERT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(contains(result.out, "Shared library: [libfwutil.so]")) << result.out;
    EXPECT_TRUE(contains(result.out, "Library runpath: [$ORIGIN/../lib]") ||
                contains(result.out, "Library runpath: [$ORIGIN/../lib:$ORIGIN/"))
        << result.out;
    EXPECT_FALSE(contains(result.out, "(RPATH)")) << "it would go before LD_LIBRARY_PATH";
    EXPECT_FALSE(contains(result.out, "::"));
    EXPECT_FALSE(contains(result.out, ":]")) << "an empty part is the current directory";
}

TEST_F(CliLibrary, AnotherLibraryTakesItsPlaceThroughTheSearchPath)
{
    const std::string banner = "Kestro - 2.21 (Linux x86)\n";
    expect({"-version"}, 0, banner + "scripted library\n", "");
    options.env.erase("LD_LIBRARY_PATH");
    options.unset.push_back("LD_LIBRARY_PATH");
    const run_result own = run_program(command({"-version"}), options);
    EXPECT_EQ(0, own.status);
    EXPECT_EQ(banner, own.out.substr(0, banner.size()));
    EXPECT_LT(banner.size(), own.out.size()) << "the library names itself";
    EXPECT_FALSE(contains(own.out, "scripted library"));
}
