// A status position against the log that is there: another log under the same
// names, a log that went on differently, a log replaced while it is followed.
#include "tests/fwutil/follow_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <gmock/gmock.h>

using testing::AllOf;
using testing::HasSubstr;

class PlaceTest : public log_test {
  protected:
    // The start position that a message gives as the remedy.
    static std::string remedy(const std::string &err)
    {
        const size_t at = err.find("-start ");
        EXPECT_NE(at, err.npos) << err;
        return at == err.npos ? ""
                              : err.substr(at + 7, err.find_first_of(" ,;)\n", at + 7) - at - 7);
    }
    void begin_anew()
    {
        std::filesystem::remove_all(log);
        written.clear();
    }
};

TEST_F(PlaceTest, ALogMadeAnewUnderAnOldStatusIsRefused)
{
    open_writer();
    add({insert(1), insert(2), insert(3)});
    close_writer();
    EXPECT_EQ(run().records, written);
    begin_anew();
    open_writer();
    add({insert(11), insert(12), insert(13), insert(14)});
    add({insert(15), insert(16), insert(17), insert(18)});
    close_writer();
    const std::string before = read_file(status);
    run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_TRUE(outcome.records.empty());
    EXPECT_EQ(read_file(status), before);

    outcome = run(remedy(outcome.err).c_str());
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written);
    EXPECT_TRUE(run().records.empty()) << "the status is one of the new log";
}

TEST_F(PlaceTest, ALogThatLostItsEndAndWentOnDifferentlyIsRefused)
{
    open_writer();
    add({insert(1)});
    close_writer();
    const std::string kept = log_file_bytes(1);
    open_writer();
    add({insert(2), insert(3)});
    close_writer();
    EXPECT_EQ(run().records, written);
    write_file(file(1), kept); // a power cut took the second transaction
    std::filesystem::remove(log + "/acknowledged");
    written.resize(1);
    open_writer();
    add({insert(4)});
    add({insert(5), insert(6)});
    close_writer();
    run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_TRUE(outcome.records.empty());

    outcome = run(remedy(outcome.err).c_str());
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, written_from(2)) << "none is lost";
}

class PlaceFollowTest : public follow_test {};

TEST_F(PlaceFollowTest, ADirectoryMadeAnewUnderAFollowerEndsItsRun)
{
    open_writer();
    add({insert(1), insert(2), insert(3)});
    close_writer();
    start();
    for (int32_t i = 1; i <= 3; i++)
        ASSERT_EQ(next(), i);
    std::filesystem::rename(log, log + ".old");
    open_writer();
    written.clear();
    add({insert(4)});
    close_writer();
    EXPECT_EQ(finish_within(10), 1) << "it goes on reading a log that has no name any more";
    EXPECT_THAT(told(), HasSubstr("fw0001-00000001.log: "));
}
