// The public calls' own promises: facts, null handles, calls that do nothing.
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>

class TmfApi : public MessageFile {};

TEST_F(TmfApi, InfoStoresWhatIsAskedFor)
{
    make({"one", "twotwo"});
    tmf_handle *h = open(TMF_MODE_READ);
    int records = -1;
    int readers = -1;
    int writers = -1;
    int descriptor = -1;
    int end = -1;
    EXPECT_EQ(tmf_getinfo(h, 5, &end, 4, &descriptor, 3, &writers, 2, &readers, 1, &records, 0), 0);
    EXPECT_EQ(records, 2);
    EXPECT_EQ(readers, 1);
    EXPECT_EQ(writers, 0);
    EXPECT_EQ(descriptor, h->fd);
    EXPECT_EQ(end, 4352 + 9 + 12);
    EXPECT_EQ(tmf_getinfo(h, 0), 0);
    EXPECT_EQ(tmf_getinfo(h, 5, nullptr, 0), 0);
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfApi, UnknownItemEndsTheListAndIsNotKept)
{
    make({"one"});
    tmf_handle *h = open(TMF_MODE_READ);
    int records = -1;
    int untouched = -1;
    EXPECT_EQ(tmf_getinfo(h, 1, &records, 7, &untouched, 1, &untouched, 0), TMF_EINFO);
    EXPECT_EQ(records, 1);
    EXPECT_EQ(untouched, -1);
    EXPECT_EQ(tmf_geterrno(h), 0);
    EXPECT_EQ(tmf_getinfo(h, -1), TMF_EINFO) << "what would stand behind it is not looked at";
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfApi, CountsAreWidenedWithTheirSign)
{
    make();
    tmf_handle *h = open(TMF_MODE_READ);
    std::string area(2, '\xFF');
    ASSERT_EQ(pwrite(h->fd, area.data(), 2, 70), 2);
    int writers = 0;
    EXPECT_EQ(tmf_getinfo(h, 3, &writers, 0), 0);
    EXPECT_EQ(writers, -1);
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfApi, InfoFailsWithTheAreasCodes)
{
    make();
    const system_calls_guard guard;
    tmf_handle *h = open(0);
    int records = -1;
    fail_call(CALL_LOCKF, ENOLCK);
    EXPECT_EQ(tmf_getinfo(h, 1, &records, 0), TMF_ELOCK_WAIT);
    fail_call(CALL_READ, EIO);
    EXPECT_EQ(tmf_getinfo(h, 1, &records, 0), TMF_EREAD_COMMON);
    EXPECT_EQ(records, -1);
    EXPECT_EQ(tmf_fclose(h), 0);
}

// The purge changes the file, so that its end may fail when all is stored.
TEST_F(TmfApi, InfoThatPurgesHasThePurgesAndTheReleasesCodes)
{
    const struct {
        const char *name;
        void (*plan)();
        int last_item;
        int code;
        bool stored;
    } rows[] = {
        {"test of a slot", [] { fail_call(CALL_LOCKF, ENOLCK, 1); }, 0, TMF_ELOCK_TEST, false},
        {"write of the area", [] { fail_call(CALL_WRITE, EIO, 1); }, 0, TMF_EWRITE_COMMON, true},
        {"short write of it", [] { answer_call(CALL_WRITE, 255, 1); }, 0, TMF_EWRITE_COMMON_EOF,
         true},
        {"unlock", [] { fail_call(CALL_LOCKF, ENOLCK, 2); }, 0, TMF_EUNLOCK, true},
        {"unknown item, and the write", [] { fail_call(CALL_WRITE, EIO, 1); }, 6, TMF_EINFO, true},
    };
    for (const auto &row : rows) {
        unlink(path.c_str());
        other_user dying(path, 0);
        tmf_handle *h = open(TMF_MODE_READ);
        ASSERT_NE(h, nullptr);
        dying.kill();
        const system_calls_guard guard;
        int writers = -1;
        row.plan();
        EXPECT_EQ(tmf_getinfo(h, 3, &writers, row.last_item), row.code) << row.name;
        EXPECT_EQ(writers, row.stored ? 0 : -1) << row.name;
        EXPECT_EQ(tmf_geterrno(h), 0) << row.name;
        EXPECT_EQ(tmf_getinfo(h, 3, &writers, 0), 0) << row.name;
        EXPECT_EQ(writers, 0) << row.name;
        EXPECT_EQ(tmf_fclose(h), 0);
    }
}

TEST_F(TmfApi, UnknownItemDoesNotKeepThePurgeFromTheFile)
{
    other_user dying(path, 0);
    tmf_handle *h = open(TMF_MODE_READ);
    ASSERT_NE(h, nullptr);
    dying.kill();
    EXPECT_EQ(tmf_getinfo(h, 6), TMF_EINFO);
    EXPECT_EQ(number_at<int16_t>(bytes_through(h), 70), 0);
    EXPECT_EQ(holder_of(path, 0, 256), 0);
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfApi, FinfoTellsWhatTheHandleKnows)
{
    tmf_handle *h = open(0);
    ASSERT_EQ(tmf_fwrite(h, "abc", 3), 0);
    const system_calls_guard guard;
    const struct {
        int item;
        int len;
        std::string expected;
    } rows[] = {
        {1, 4, std::string("\0\0\0\0----", 8)},
        {1, 3, "--------"},
        {2, 3, "--------"},
        {2, 0, "--------"},
        {7, 3, std::string("\0\0\0-----", 8)},
        {0, 8, std::string(8, '\0')},
        {7, 0, "--------"},
        {7, -4, "--------"},
    };
    for (const auto &row : rows) {
        std::string out(8, '-');
        EXPECT_EQ(tmf_finfo(h, row.item, out.data(), row.len), 0);
        EXPECT_EQ(out, row.expected) << row.item << " " << row.len;
    }
    for (const int len : {4, 8}) {
        std::string out(8, '-');
        EXPECT_EQ(tmf_finfo(h, 2, out.data(), len), 0);
        EXPECT_EQ(number_at<int32_t>(out, 0), 4352 + 9);
        EXPECT_EQ(out.substr(4), "----");
    }
    EXPECT_EQ(tmf_finfo(h, 2, nullptr, 4), 0);
    EXPECT_TRUE(calls_made().empty()) << "neither lock nor file is touched";
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfApi, FlushAndControlDoNothing)
{
    tmf_handle *h = open(0);
    const system_calls_guard guard;
    EXPECT_EQ(tmf_fflush(h), 0);
    EXPECT_EQ(tmf_fctl(h, 1, 2, 3), 0);
    EXPECT_TRUE(calls_made().empty());
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfApi, NullHandleHasItsCode)
{
    char buf[10];
    const auto clear = [] { EXPECT_EQ(tmf_fopen("", 0), nullptr); };
    clear();
    EXPECT_EQ(tmf_fwrite(nullptr, "x", 1), TMF_EHANDLE);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_EHANDLE);
    EXPECT_EQ(message_of(nullptr), "Internal error: Bad handle.");
    clear();
    EXPECT_EQ(tmf_fread(nullptr, buf, 10, 0), TMF_EHANDLE);
    EXPECT_EQ(tmf_freadx(nullptr, buf, 10, 0, 1), TMF_EHANDLE);
    EXPECT_EQ(tmf_getinfo(nullptr, 0), TMF_EHANDLE);
    EXPECT_EQ(tmf_fclose(nullptr), TMF_EHANDLE);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_EHANDLE);
    clear();
    EXPECT_EQ(tmf_finfo(nullptr, 7, buf, 10), 0);
    EXPECT_EQ(tmf_fflush(nullptr), 0);
    EXPECT_EQ(tmf_fctl(nullptr), 0);
    tmf_clearerr(nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_ENONAME) << "these leave the open error alone";
}
