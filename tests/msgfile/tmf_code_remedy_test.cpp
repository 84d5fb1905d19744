// What docs/message-file.md says to do about a code that a disk or a file without seeks gives
// is done, and no record is missing or there twice.
#include "tests/msgfile/repaired_file.h"
#include "tests/support/markdown.h"

#include <cerrno>

class TmfCodeRemedy : public RepairedFile {
  protected:
    // The last cell of the row of a code.
    static std::string remedy_of(int code)
    {
        for (const auto &row : md_find_table(md_page("docs/message-file.md"), "code").rows) {
            if ((row[0] + ",").find(std::to_string(code) + ",") != std::string::npos)
                return row.back();
        }
        throw std::runtime_error("no row of " + std::to_string(code));
    }
    int open_fails(int mode) const
    {
        tmf_handle *h = open(mode);
        EXPECT_EQ(h, nullptr);
        return h == nullptr ? tmf_geterrno(nullptr) : tmf_fclose(h);
    }
    void expect_write(const std::string &record) const
    {
        opened_file writer(path, 0);
        EXPECT_EQ(write_record(writer, record), 0);
        EXPECT_EQ(writer.close(), 0);
    }
};

// "go on; the next time the file empties this is tried again"
TEST_F(TmfCodeRemedy, AFileThatCouldNotBeCutIsCutTheNextTime)
{
    EXPECT_EQ(remedy_of(TMF_ETRUNCATE),
              "go on; the next time the file empties this is tried again");
    const std::vector<std::string> records = {some_data(30000), some_data(30000, 1),
                                              some_data(30000, 2)};
    make({records[0], records[1], records[2]});
    opened_file writer(path, 0);
    opened_file reader(path, TMF_MODE_READ);
    EXPECT_EQ(read_record(reader, 30000), whole(records[0]));
    EXPECT_EQ(read_record(reader, 30000), whole(records[1]));
    fail_call(CALL_FTRUNCATE, EIO);
    std::string last(30000, '\0');
    EXPECT_EQ(tmf_fread(reader, last.data(), 30000, 0), TMF_ETRUNCATE);
    EXPECT_EQ(last, records[2]) << "its data is in the buffer";
    EXPECT_GT(bytes_through(reader).size(), 65536U);
    EXPECT_EQ(write_record(writer, "fourth"), 0);
    EXPECT_EQ(read_record(reader, 100), whole("fourth"));
    EXPECT_EQ(bytes_through(reader).size(), 65536U);
    EXPECT_EQ(write_record(writer, "fifth"), 0);
    EXPECT_EQ(read_record(reader, 100), whole("fifth"));
    EXPECT_EQ(writer.close(), 0);
    EXPECT_EQ(read_record(reader, 100), whole(""));
}

// "make room (disk full, file size limit), open again"
TEST_F(TmfCodeRemedy, AProcessIdThatHasNoRoomIsWrittenByTheNextOpen)
{
    make({"one"});
    const struct {
        int mode;
        int failed;
        int cut;
    } rows[] = {{TMF_MODE_READ, TMF_EWRITE_READER, TMF_EWRITE_READER_EOF},
                {0, TMF_EWRITE_WRITER, TMF_EWRITE_WRITER_EOF}};
    for (const auto &row : rows) {
        EXPECT_EQ(remedy_of(row.failed), "as above");
        EXPECT_EQ(remedy_of(row.cut), "make room (disk full, file size limit), open again");
        fail_call(CALL_WRITE, ENOSPC);
        EXPECT_EQ(open_fails(row.mode), row.failed);
        EXPECT_EQ(opened_file(path, row.mode).close(), 0);
        answer_call(CALL_WRITE, 2);
        EXPECT_EQ(open_fails(row.mode), row.cut);
        opened_file user(path, row.mode);
        EXPECT_EQ(user->common->num_readers + user->common->num_writers, 1);
    }
    expect_nobody();
    expect_write("two");
    EXPECT_EQ(records_read(), (std::vector<std::string>{"one", "two"}));
}

// "close; locks end with the process": what the call did is done.
TEST_F(TmfCodeRemedy, ALockThatIsNotGivenBackEndsWithTheClose)
{
    EXPECT_EQ(remedy_of(TMF_EUNLOCK), "close; locks end with the process");
    make({"one"});
    {
        opened_file writer(path, 0);
        fail_call(CALL_FCNTL, ENOLCK); // the record is there, so that the file is known to seek
        EXPECT_EQ(write_record(writer, "two"), TMF_EUNLOCK);
        EXPECT_EQ(writer.close(), 0);
    }
    expect_write("three");
    EXPECT_EQ(records_read(), (std::vector<std::string>{"one", "two", "three"}));
    opened_file reader(path, TMF_MODE_READ);
    EXPECT_EQ(read_record(reader, 10), whole("one"));
    fail_call(CALL_FCNTL, ENOLCK, 1); // behind the one that takes it
    char record[10];
    EXPECT_EQ(tmf_fread(reader, record, 10, 0), TMF_EUNLOCK);
    EXPECT_EQ(std::string(record, 3), "two");
    EXPECT_EQ(reader.close(), 0);
    EXPECT_EQ(records_read(), (std::vector<std::string>{"three"}));
}

// "name an ordinary file": nothing is lost in either.
TEST_F(TmfCodeRemedy, AFileWithoutSeeksIsLeftForAnOrdinaryOne)
{
    make({"one"});
    for (const int code : {TMF_ESEEK_COMMON, TMF_ESEEK_COMMON_EOF}) {
        EXPECT_EQ(remedy_of(code), "the file is no ordinary file: name one that is");
        opened_file writer(path, 0);
        if (code == TMF_ESEEK_COMMON)
            fail_call(CALL_LSEEK, ESPIPE, 1);
        else
            answer_call(CALL_LSEEK, 7, 1);
        EXPECT_EQ(write_record(writer, "two"), code);
    }
    EXPECT_EQ(records_read(), (std::vector<std::string>{"one"}));
    path = dir.file("ordinary");
    expect_write("two");
    EXPECT_EQ(records_read(), (std::vector<std::string>{"two"}));
}

// "open while no user of the other order has it"
TEST_F(TmfCodeRemedy, AFileWhoseOrderHasChangedIsOpenedAgain)
{
    EXPECT_TRUE(
        remedy_of(TMF_EINCOMPATIBLE).starts_with("open while no user of the other order has it; "));
    make({"one"});
    opened_file writer(path, 0);
    EXPECT_EQ(write_record(writer, "two"), 0);
    const std::string turned = turned_around(bytes_through(writer).substr(0, 256));
    ASSERT_EQ(pwrite(writer->fd, turned.data(), 256, 0), 256);
    EXPECT_EQ(write_record(writer, "three"), TMF_EINCOMPATIBLE);
    EXPECT_EQ(writer.close(), TMF_EINCOMPATIBLE);
    expect_write("three");
    EXPECT_EQ(records_read(), (std::vector<std::string>{"one", "two", "three"}));
}
