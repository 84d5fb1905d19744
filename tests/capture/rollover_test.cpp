// The size limit of message capture files.
#include "capture/rollover.h"

#include "tests/support/core_state.h"

class Rollover : public core_state {};

TEST_F(Rollover, LimitFromTheEnvironment)
{
    const struct {
        const char *value; // null: not set
        int32_t limit;
    } cases[] = {
        {nullptr, 2147418112},
        {"0", 2147418112},
        {"-5", 2147418112},
        {"abc", 2147418112},
        {"", 2147418112},
        {"1000x", 1000},
        {"1000", 1000},
        {" 77", 77},
        {"0x10", 2147418112}, // base 10: a zero
        {"1", 1},
        {"2147483647", 2147483647},
        {"2147483648", 2147483647},
        {"99999999999999999999", 2147483647},
        {"-99999999999999999999", 2147418112},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value == nullptr ? "unset" : c.value);
        if (c.value == nullptr)
            unsetenv("KESTRO_MAXCAP");
        else
            setenv("KESTRO_MAXCAP", c.value, 1);
        g_loglevel = LOG_NOTICE;
        const captured quiet = capture([&] { EXPECT_EQ(c.limit, get_cap_maxbytes()); });
        EXPECT_EQ("", quiet.err);
        g_loglevel = LOG_VERBOSE;
        const captured verbose = capture([] { get_cap_maxbytes(); });
        EXPECT_EQ("LOG Capture file maximum size is " + std::to_string(c.limit) + " bytes.\n",
                  without_stamps(verbose.err));
    }
    unsetenv("KESTRO_MAXCAP");
}
