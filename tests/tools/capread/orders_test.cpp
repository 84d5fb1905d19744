// The changes of examples/orders out of capture files, beside those of the log itself: equal but
// for what docs/capread.md says that a record does not tell.
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

struct orders_form {
    const char *name;
    const char *options; // of Kestro and capread
};

static const orders_form forms[] = {
    {"Message", ""},
    {"MessageWithSessions", "-exthdr -yyyy -recnum"},
    {"MessageInParts", "-exthdr -fga"},
    {"TextWithSessions", "-ascii -exthdr -yyyy -recnum"},
    {"TextAsPrinted", "-ascii -bwfmt -yyyy"},
    {"TextAsItIs", "-ascii -dirty -exthdr"},
};

class CapreadOrders : public testing::TestWithParam<orders_form> {
  protected:
    void SetUp() override
    {
        if (run_program({"jq", "--version"}).status != 0)
            GTEST_SKIP() << "no program jq (Debian package jq)";
        std::filesystem::copy(KESTRO_SOURCE_DIR "/examples/orders/fwutil.cfg",
                              dir.file("fwutil.cfg"));
        setup.directory = dir.path();
        setup.env = {{"PATH", KESTRO_BUILD_DIR "/bin:" + std::string(getenv("PATH"))},
                     {"TZ", "Europe/Berlin"},
                     {"LC_ALL", "C.UTF-8"}};
        setup.unset = {"FWUTIL_CFG", "KESTRO_TEXT", "KESTRO_SYNC"};
        run("fwlog load " KESTRO_SOURCE_DIR "/examples/orders/orders-changes.jsonl > /dev/null");
    }

    void run(const std::string &command) const
    {
        const run_result result = run_program({"sh", "-c", command}, setup);
        ASSERT_EQ(result.status, 0) << command << "\n" << result.err;
    }

    // Shell text that makes lines comparable; of the log or of the capture.
    static std::string comparable(bool log, const std::string &options)
    {
        const auto flag = [](const char *name, bool on) {
            return std::string(" --argjson ") + name + (on ? " true" : " false");
        };
        const auto has = [&](const char *name) { return options.find(name) != std::string::npos; };
        return " | jq -S -c" + flag("from_log", log) + flag("exthdr", has("-exthdr")) +
               flag("recnum", has("-recnum")) + flag("ascii", has("-ascii")) +
               " -f " KESTRO_SOURCE_DIR "/tests/tools/capread/as_the_log.jq > " +
               (log ? "wanted" : "found");
    }

    tempdir dir;
    run_setup setup;
};

TEST_P(CapreadOrders, AreThoseOfTheLog)
{
    const std::string options = GetParam().options;
    run("Kestro -synconly " + options + " capture > /dev/null");
    run("fwlog dump --json --numbers text" + comparable(true, options));
    run("capread -cfg fwutil.cfg --numbers text " + options + " capture" +
        comparable(false, options));
    std::ifstream wanted(dir.file("wanted"));
    std::ifstream found(dir.file("found"));
    int lines = 0;
    for (std::string want, got; std::getline(wanted, want); lines++) {
        ASSERT_TRUE(std::getline(found, got)) << lines;
        ASSERT_EQ(got, want) << "line " << lines;
    }
    std::string more;
    EXPECT_FALSE(std::getline(found, more));
    EXPECT_EQ(lines, 8431);
}

INSTANTIATE_TEST_SUITE_P(Forms, CapreadOrders, testing::ValuesIn(forms),
                         [](const auto &form) { return std::string(form.param.name); });
