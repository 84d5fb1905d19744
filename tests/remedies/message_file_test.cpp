// Message files that cannot be joined, or are damaged: what docs/operations.md and docs/tmf-tool.md
// say to do is done, and every whole record is there and new ones follow.
#include "msgfile/tmf.h"
#include "tests/msgfile/other_process.h"
#include "tests/remedies/remedy_fixture.h"

#include <csignal>

using testing::HasSubstr;

static const char OPERATIONS[] = "docs/operations.md";
static const char TOOL[] = "docs/tmf-tool.md";

constexpr off_t WRITER_SLOTS = 320;
constexpr size_t WRITE_OFFSET = 44;
constexpr size_t FRAMED_SIZE = 92; // of a record: 62 of header, 24 of image, 6 of framing

class MessageFileRemedy : public RemedyRun {
  protected:
    void SetUp() override
    {
        RemedyRun::SetUp();
        append(RECORDS);
    }
    // A message file with all records, and its path.
    std::string captured()
    {
        expect_good("Kestro -synconly msg");
        EXPECT_EQ(message_numbers("msg"), whole);
        return dir.file("msg");
    }
    // Bytes of a file are written over.
    static void damage(const std::string &path, size_t at, const std::string &bytes)
    {
        std::string file = read_file(path);
        ASSERT_LT(at + bytes.size(), file.size());
        write_file(path, file.replace(at, bytes.size(), bytes));
    }
    // Where the record of a number begins, by its framing.
    static size_t record_at(int number)
    {
        return 4352 + FRAMED_SIZE * (static_cast<size_t>(number) - 1);
    }
    const std::vector<int> whole = from_to(1, RECORDS);
};

TEST_F(MessageFileRemedy, AnotherWriterHasItForItself)
{
    EXPECT_EQ(md_remedy(OPERATIONS, "File already opened exclusively for write access."),
              "`tmf info` names the process; end it or name another file");
    other_user writer(dir.file("msg"), TMF_MODE_EXCLUSIVE);
    expect_error("Kestro -synconly msg",
                 "CAPERR: File already opened exclusively for write access.\n"
                 "Error opening message capture file: msg\n");
    EXPECT_THAT(sh("tmf info msg").out, HasSubstr("process " + std::to_string(writer.pid())));
    expect_good("Kestro -synconly -stat other.status other");
    EXPECT_EQ(message_numbers("other"), whole);
    writer.kill();
    expect_good("Kestro -synconly msg");
    EXPECT_EQ(message_numbers("msg"), whole);
}

TEST_F(MessageFileRemedy, AProcessThatDidNotRegisterHoldsTheSlot)
{
    EXPECT_THAT(md_remedy(OPERATIONS, "Message file error #1"),
                HasSubstr("start again (append): the next slot is taken; `tmf info` or `lslocks`"));
    const std::string path = captured();
    append(100);
    lock_holder stranger(path, WRITER_SLOTS, 4);
    expect_error("Kestro -synconly msg", "CAPERR: Message file error #1\n"
                                         "Error opening message capture file: msg\n");
    EXPECT_THAT(sh("tmf info msg").out, HasSubstr(std::to_string(stranger.pid())));
    expect_good("KESTRO_TEXT=append Kestro -synconly msg");
    EXPECT_EQ(message_numbers("msg"), from_to(1, logged));
}

// Its beginning says that the next record goes where none can.
TEST_F(MessageFileRemedy, AFileThatNothingCanBeAppendedToIsRepairedOrSalvaged)
{
    const std::string row = md_remedy(OPERATIONS, "EOF seeking data area.");
    EXPECT_THAT(row, HasSubstr("start again (append)"));
    for (const bool salvage : {false, true}) {
        SCOPED_TRACE(salvage);
        ASSERT_EQ(sh("rm -rf msg* out fwutil.status log").status, 0);
        logged = 0;
        append(RECORDS);
        damage(captured(), WRITE_OFFSET, std::string("\x10\x00\x00\x00", 4));
        append(100);
        expect_error("Kestro -synconly msg", "CAPERR: EOF seeking data area.\n");
        EXPECT_EQ(sh(salvage ? md_command(row, "tmf salvage", "msg", "out")
                             : md_command(row, "tmf repair", "msg"))
                      .status,
                  0);
        const std::string good = salvage ? "out" : "msg";
        expect_good("KESTRO_TEXT=append Kestro -synconly " + good);
        EXPECT_EQ(message_numbers(good), from_to(1, logged));
    }
}

TEST_F(MessageFileRemedy, ADamagedLengthIsSalvagedAndOneGoesOnWithTheNewFile)
{
    const std::string path = captured();
    damage(path, record_at(500), std::string("\x11\x11", 2));
    const run_result found = sh("tmf verify msg");
    EXPECT_EQ(found.status, 1);
    EXPECT_THAT(found.out, HasSubstr("the length of the record is "));
    const std::string row = md_remedy(TOOL, "the length of the record is N");
    EXPECT_EQ(sh(md_command(row, "tmf salvage", "msg", "out")).status, 0);
    std::vector<int> expected = whole;
    expected.erase(expected.begin() + 499);
    EXPECT_EQ(message_numbers("out"), expected);
    append(100);
    expect_good("Kestro -synconly out"); // "and go on with OUT"
    for (int n = RECORDS + 1; n <= logged; n++)
        expected.push_back(n);
    EXPECT_EQ(message_numbers("out"), expected);
    // Another name where OUT is there.
    EXPECT_EQ(md_remedy(TOOL, "there is such a file already; name another one"),
              "name another OUT");
    expect_error(md_command(row, "tmf salvage", "msg", "out"),
                 "there is such a file already; name another one");
    EXPECT_EQ(sh(md_command(row, "tmf salvage", "msg", "out2")).status, 0);
    EXPECT_EQ(message_numbers("out2").size(), whole.size() - 1);
}

TEST_F(MessageFileRemedy, ARecordThatIsCutOffAndAWrongCountAreRepaired)
{
    for (const bool counted : {false, true}) {
        SCOPED_TRACE(counted);
        ASSERT_EQ(sh("rm -rf msg* fwutil.status log").status, 0);
        logged = 0;
        append(RECORDS);
        const std::string path = captured();
        if (counted)
            damage(path, 16, std::string("\xf7\xff\xff\xff", 4));
        else
            damage(path, record_at(RECORDS), std::string("\x00\x00", 2));
        const run_result read = sh("tmf read --keep msg >all; tmf info msg");
        EXPECT_THAT(counted ? read.out : read.err,
                    HasSubstr(counted ? "damaged: -9 records" : "EOF reading data."));
        const std::string row = md_remedy(TOOL, "EOF reading data.");
        EXPECT_EQ(md_remedy(TOOL, "damaged: N records"), "as above");
        EXPECT_EQ(sh(md_command(row, "tmf repair") + " msg").status, 0);
        EXPECT_EQ(message_numbers("msg"), from_to(1, counted ? RECORDS : RECORDS - 1));
        append(100);
        expect_good("Kestro -synconly msg");
        EXPECT_EQ(message_numbers("msg").back(), logged);
        EXPECT_EQ(message_numbers("msg").size(),
                  static_cast<size_t>(counted ? logged : logged - 1));
    }
}

TEST_F(MessageFileRemedy, TheCopyOfARepairGetsAnotherPlace)
{
    const std::string path = captured();
    damage(path, record_at(RECORDS), std::string("\x00\x00", 2));
    write_file(dir.file("msg.damaged"), "an earlier copy");
    expect_error("tmf repair msg", "name another place with --keep");
    const std::string row =
        md_remedy(TOOL, "there is such a file already, perhaps an earlier copy");
    EXPECT_THAT(row, HasSubstr("move it away, or `--keep NAME`"));
    EXPECT_EQ(sh("cp -p msg again && tmf repair --keep second msg").status, 0);
    EXPECT_EQ(read_file(dir.file("msg.damaged")), "an earlier copy");
    EXPECT_EQ(message_numbers("msg"), from_to(1, RECORDS - 1));
    EXPECT_EQ(sh("mv again msg && mv msg.damaged away && tmf repair msg").status, 0);
    EXPECT_EQ(message_numbers("msg"), from_to(1, RECORDS - 1));
    EXPECT_EQ(md_remedy(TOOL, "nothing is changed, since no copy of it can be kept"),
              "`--keep` on another disk");
    damage(path, record_at(RECORDS - 1), std::string("\x00\x00", 2));
    expect_error("tmf repair --keep none/copy msg",
                 "nothing is changed, since no copy of it can be kept");
    EXPECT_EQ(sh("tmf repair --keep third msg").status, 0);
    append(100);
    expect_good("Kestro -synconly msg");
    EXPECT_EQ(message_numbers("msg").size(), static_cast<size_t>(logged - 2));
}

TEST_F(MessageFileRemedy, AnotherReaderHasItAndSharedReadingHelps)
{
    (void)captured();
    const std::string row =
        md_remedy(TOOL, "Exclusively read access requested for file already open.");
    const std::string shared = md_command(row, "tmf read");
    {
        other_user reader(dir.file("msg"), TMF_MODE_READ);
        expect_error("tmf read --count 1 msg",
                     "Exclusively read access requested for file already open.");
        EXPECT_THAT(sh("tmf info msg").out, HasSubstr(std::to_string(reader.pid())));
        EXPECT_EQ(sh(shared + " --hex --count 400 msg >first").status, 0);
    }
    {
        other_user reader(dir.file("msg"), TMF_MODE_READ + TMF_MODE_EXCLUSIVE);
        EXPECT_EQ(md_remedy(TOOL, "File already opened exclusively for read access."),
                  "wait until it ends");
        expect_error(shared + " msg", "File already opened exclusively for read access.");
        EXPECT_EQ(reader.close(), 0);
        EXPECT_EQ(sh("tmf read --hex --count 400 msg >second").status, 0);
    }
    EXPECT_EQ(sh("cat first second | wc -l").out, "800\n");
    EXPECT_EQ(message_numbers("msg"), from_to(801, RECORDS));
}

TEST_F(MessageFileRemedy, OutputWithoutRoomIsReadAgain)
{
    (void)captured();
    EXPECT_EQ(md_remedy(TOOL, "writing standard output: ..."), "make room, read again");
    expect_error("tmf read --hex msg >/dev/full", "writing standard output: ");
    EXPECT_EQ(message_numbers("msg"), whole);
    expect_good("tmf read --hex msg >all");
    EXPECT_EQ(sh("wc -l <all").out, std::to_string(RECORDS) + "\n");
    EXPECT_EQ(md_remedy(TOOL, "is standard output, too"), "name another file");
    expect_error("tmf read msg >>msg", "is standard output, too");
    expect_good("tmf read msg >>other");
}
