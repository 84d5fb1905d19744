// Rows of what failures lead to, and looks at what they leave.
#include "tests/fwutil/failing_fixture.h"

static void replace_all(std::string &text, const std::string &what, const std::string &by)
{
    for (size_t at = 0; (at = text.find(what, at)) != text.npos; at += by.size())
        text.replace(at, what.size(), by);
}

std::string failing_test::failures(const step &prepare, const step &operation, const step &look,
                                   bool halves)
{
    std::string rows = "\n";
    strike_each(prepare, operation,
                [&](const blow_told &blow) {
                    if (blow.call.empty()) {
                        EXPECT_EQ(0, rc) << err;
                        look();
                        return;
                    }
                    std::string row = blow.call + ":" + (rc == 0 ? " goes on" : "");
                    if (!err.empty())
                        row += " " + err.substr(0, err.size() - 1);
                    replace_all(row, log, "LOG");
                    replace_all(row, dir.path(), "DIR");
                    replace_all(row, "\n", " / ");
                    replace_all(row, "fwutil: ", "");
                    replace_all(row, ": Input/output error", ": EIO");
                    if (rows.find("\n" + row + "\n") == rows.npos)
                        rows += row + "\n";
                    look();
                },
                {BLOW_ERROR});
    strike_each(prepare, operation,
                [&](const blow_told &) {
                    EXPECT_TRUE(rc == 0 || !err.empty());
                    look();
                },
                {BLOW_GONE});
    prepare();
    operation();
    const std::string whole = err;
    const int good = rc;
    look();
    strike_each(
        prepare, operation,
        [&](const blow_told &) {
            EXPECT_EQ(good, rc) << err;
            EXPECT_EQ(whole, err);
            look();
        },
        halves ? std::vector{BLOW_INTERRUPT, BLOW_HALF} : std::vector{BLOW_INTERRUPT});
    return rows;
}

failing_test::step failing_test::noted(const step &made)
{
    return [this, made] { err = stderr_of(made); };
}

void failing_test::clear()
{
    drop_writer();
    std::filesystem::remove_all(log);
    std::filesystem::remove(status);
    written.clear();
    commits = 0;
}

void failing_test::drop_writer()
{
    (void)fwu_writer_close(writer);
    writer = nullptr;
}

void failing_test::expect_written()
{
    std::filesystem::remove(status);
    const run_outcome found = run();
    EXPECT_EQ(0, found.result) << found.err;
    EXPECT_EQ(written, found.records);
}

void failing_test::expect_goes_on()
{
    drop_writer();
    const std::string told = stderr_of([&] {
        open_writer();
        if (HasFatalFailure())
            return;
        commits = fwu_writer_last_lsn(writer) / 16;
        add({insert(77)});
        EXPECT_EQ(0, fwu_writer_sync(writer));
        EXPECT_EQ(0, fwu_writer_acknowledge(writer));
        close_writer();
    });
    ASSERT_FALSE(HasFatalFailure()) << told;
    expect_written();
}
