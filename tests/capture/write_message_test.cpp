// Writing log records to message files.
#include "capture/ebmf.h"
#include "tests/capture/write_fixture.h"

#include <sys/stat.h>

TEST_F(Write, MessageFileThatCannotBeOpenedFailsTheRecord)
{
    const std::string name = dir.file("no/f");
    const capfil *cf = add_file(name);
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_EQ("CAPERR: Error opening file: No such file or directory\n"
              "Error opening message capture file: " +
                  name + "\n",
              printed.err);
    EXPECT_EQ(0, cf->nwritten);
    ASSERT_TRUE(std::filesystem::create_directory(dir.file("no")));
    EXPECT_EQ(0, write(capture_write_insert)) << "the next record opens it";
    EXPECT_EQ(1, cf->nwritten);
}

TEST_F(Write, ForeignFileIsLeftAlone)
{
    const std::string name = dir.file("f");
    write_file(name, "something else\n");
    add_file(name);
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_EQ("CAPERR: File is not a message file.\nError opening message capture file: " + name +
                  "\n",
              printed.err);
    EXPECT_EQ("something else\n", content("f"));
}

// The data area's records, without their frames.
static std::vector<std::string> records_of(const std::string &name)
{
    std::vector<std::string> records;
    tmf_handle *reader =
        tmf_fopen(name.c_str(), TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY);
    std::string buffer(TMF_MAX_DATA, '\0');
    for (int n = 0; (n = tmf_fread(reader, buffer.data(), TMF_MAX_DATA, 0)) > 0;)
        records.push_back(buffer.substr(0, static_cast<size_t>(n)));
    EXPECT_EQ(0, tmf_fclose(reader));
    return records;
}

TEST_F(Write, MessageRecordHoldsTheImagesBehindTheHeader)
{
    const capfil *cf = add_file(dir.file("f"));
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ(0, write(capture_write_update));
    EXPECT_EQ(0, write(capture_write_delete));
    EXPECT_EQ(62 + 256, cf->bufsize);
    const std::string image(200, 'x');
    record.reclen = 200;
    record.before_image = record.after_image = image.data();
    EXPECT_EQ(0, write(capture_write_update));
    EXPECT_EQ(62 + 400, cf->bufsize);
    EXPECT_EQ("", printed.out + printed.err);
    const std::vector<std::string> expected = {
        HEADER("000000", "IP") "new!", HEADER("000001", "IU") "old!new!",
        HEADER("000002", "ID") "old!", HEADER("000003", "IU") + image + image};
    EXPECT_EQ(expected, records_of(dir.file("f")));
}

TEST_F(Write, MessageFileIsAppendedToAndPrivate)
{
    capfil *cf = add_file(dir.file("f"));
    EXPECT_EQ(0, write(capture_write_insert));
    struct stat st = {};
    ASSERT_EQ(0, stat(cf->name, &st));
    EXPECT_EQ(0600U, st.st_mode & 0777U);
    EXPECT_EQ(0, ebmf_fclose(cf->fp));
    cf->fp = nullptr;
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ(2U, records_of(dir.file("f")).size());
}

TEST_F(Write, SharedMessageFileIsEverybodys)
{
    capcfg cfg = {};
    cfg.share_mode = 1;
    const capfil *cf = add_file(dir.file("f"), cfg);
    g_loglevel = LOG_VERBOSE;
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ("LOG Opened capture file " + dir.file("f") + " in shr mode, #" +
                  std::to_string(cf->fnum) + "\n",
              without_stamps(printed.err));
    struct stat st = {};
    ASSERT_EQ(0, stat(cf->name, &st));
    EXPECT_EQ(0666U, st.st_mode & 0777U);
}

TEST_F(Write, RecordTooLongForAMessageFileFails)
{
    const capfil *cf = add_file(dir.file("f"));
    const std::string image(TMF_MAX_DATA - 62 + 1, 'x');
    record.after_image = image.data();
    record.reclen = static_cast<int32_t>(image.size());
    EXPECT_EQ(-1, write(capture_write_insert));
    const std::string refused =
        "CAPERR: Invalid record size.\nError writing to capture file: " + dir.file("f") + "\n";
    const std::string remedy =
        ", and a message file takes 32761 at most: capture ORDERS:CUST into a text file (-ascii), "
        "the others into this one by -dset, and start again; shorter items help later records\n";
    EXPECT_EQ(refused +
                  "Insert of ORDERS.CUST makes a record of 32762 bytes (header 62, images 1 x "
                  "32700)" +
                  remedy,
              printed.err);
    EXPECT_EQ(1, cf->nwritten);
    record.reclen--;
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ("", printed.err);
    record.before_image = record.after_image;
    record.reclen = 16350;
    EXPECT_EQ(-1, write(capture_write_update));
    EXPECT_EQ(refused +
                  "Update of ORDERS.CUST makes a record of 32762 bytes (header 62, images 2 x "
                  "16350)" +
                  remedy,
              printed.err);
    record.reclen--;
    EXPECT_EQ(0, write(capture_write_update));
    EXPECT_EQ(2U, records_of(dir.file("f")).size());
}

TEST_F(Write, AFileThatCannotBeOpenedSaysNothingOfTheRecordsLength)
{
    add_file(dir.file("no/f"));
    const std::string image(TMF_MAX_DATA, 'x');
    record.after_image = image.data();
    record.reclen = static_cast<int32_t>(image.size());
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_EQ("CAPERR: Error opening file: No such file or directory\n"
              "Error opening message capture file: " +
                  dir.file("no/f") + "\n",
              printed.err);
}

TEST_F(Write, ImpossibleLengthsAreRefusedByAMessageFile)
{
    add_file(dir.file("message"));
    g_ci->skipstats = slist_new();
    const int32_t lengths[] = {-1, -2147483647 - 1, 2147483647};
    for (const int32_t length : lengths) {
        record.reclen = length;
        EXPECT_EQ(-1, write(capture_write_update));
        EXPECT_EQ("Invalid log record length " + std::to_string(length) + " for ORDERS.CUST\n",
                  printed.err);
    }
    EXPECT_FALSE(std::filesystem::exists(dir.file("message")));
    EXPECT_EQ(0, g_ci->skipstats->n) << "the file took them";
}
