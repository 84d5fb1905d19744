// The beginning of a message file is damaged: what the pages say to do is done, and every record
// is there and new ones follow.
#include "msgfile/tmf.h"
#include "tests/remedies/remedy_fixture.h"

using testing::HasSubstr;

static const char OPERATIONS[] = "docs/operations.md";
static const char TOOL[] = "docs/tmf-tool.md";
static const char ALL[] = "docs/messages.md";

class HeadRemedy : public RemedyRun {
  protected:
    // A capture that ended well, and changes that come to the log behind it.
    void SetUp() override
    {
        RemedyRun::SetUp();
        append(RECORDS);
        expect_good("Kestro -synconly msg");
        append(100);
        good = read_file(dir.file("msg"));
        status = read_file(dir.file("fwutil.status"));
    }
    // The capture as it was, with other bytes at one place.
    void damage(size_t at, const std::string &bytes)
    {
        ASSERT_EQ(sh("rm -f msg.* out*").status, 0);
        damaged = std::string(good).replace(at, bytes.size(), bytes);
        ASSERT_NE(damaged, good);
        write_file(dir.file("msg"), damaged);
        write_file(dir.file("fwutil.status"), status);
    }
    // "start again (append)": with this file.
    void expect_goes_on(const std::string &file)
    {
        expect_good("KESTRO_TEXT=append Kestro -synconly " + file);
        EXPECT_EQ(message_numbers(file), from_to(1, logged));
        expect_good("tmf verify " + file);
    }

    std::string good, status, damaged;
};

// The numbers by which slots and records are found, each by a wrong value or two.
TEST_F(HeadRemedy, NumbersThatEveryFileHasAlikeAreRepaired)
{
    const std::string slots = "EOF seeking writer area.";
    const std::string records = "EOF seeking data area.";
    const std::string full = "Internal error.";
    const struct {
        size_t at;
        std::string bytes;
        std::string said; // by the run that meets it; empty: it goes on
        std::string found;
    } rows[] = {
        {8, std::string(4, '\0'), "", "8: common_size is 0, and is 256"},
        {12, std::string(4, '\0'), "", "12: lock_area_size is 0, and is 4096"},
        {28, std::string(4, '\0'), slots, "28: data_start is 0, and is 4352"},
        {28, "\xFF\xFF\xFF\x7F", records, "28: data_start is 2147483647, and is 4352"},
        {52, std::string(4, '\0'), slots, "52: lock_area_offset is 0, and is 256"},
        {52, std::string("\0\x11\0\0", 4), slots, "52: lock_area_offset is 4352, and is 256"},
        {64, "\xFF\xFF", slots, "64: max_readers is -1, and is 16"},
        {66, std::string(2, '\0'), full, "66: max_writers is 0, and is 1008"},
        {76, std::string(2, '\0'), slots, "76: writer_slot_size is 0, and is 4"},
        {78, std::string("\0\x04", 2), slots, "78: reader_slot_size is 1024, and is 4"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.found);
        damage(row.at, row.bytes);
        const run_result verified = sh("tmf verify msg");
        EXPECT_EQ(verified.status, 1);
        EXPECT_THAT(verified.out, HasSubstr(row.found));
        if (!row.said.empty())
            expect_error("Kestro -synconly msg", "CAPERR: " + row.said);
        const std::string said = row.said.empty()
                                     ? md_remedy(ALL, "is ..., and is ... in every message file")
                                     : md_remedy(OPERATIONS, row.said);
        const run_result repaired = sh(md_command(said, "tmf repair", "msg"));
        EXPECT_EQ(repaired.status, 0) << repaired.err;
        EXPECT_THAT(repaired.out,
                    HasSubstr("a number that every message file has alike is another one"));
        expect_goes_on("msg");
    }
    EXPECT_EQ(md_remedy(ALL, "a number that every message file has alike is another one"),
              "see [repair](tmf-tool.md#repair)");
    EXPECT_THAT(md_section(md_page(TOOL), "repair"),
                HasSubstr("`a number that every message file has alike is another one`"));
}

// A reader's slot, and what the library's own codes say.
TEST_F(HeadRemedy, WhereTheSlotsAreIsRepaired)
{
    for (const int code : {TMF_ESEEK_READER, TMF_ESEEK_WRITER})
        EXPECT_EQ(md_command(md_code_remedy(code), "tmf repair", "msg"), "tmf repair msg");
    const struct {
        size_t at;
        const char *run;
        const char *said;
    } rows[] = {{78, "tmf read --keep msg", "EOF seeking reader area."},
                {76, "Kestro -synconly msg", "EOF seeking writer area."}};
    for (const auto &row : rows) {
        damage(row.at, std::string(2, '\0'));
        expect_error(row.run, row.said);
        EXPECT_EQ(sh(md_command(md_remedy(TOOL, row.said), "tmf repair", "msg")).status, 0);
        expect_goes_on("msg");
    }
}

// Counts are put right; where it is something else, the records go into another file.
TEST_F(HeadRemedy, AnInternalErrorIsRepairedOrItsFileLeft)
{
    const std::string by = md_remedy(OPERATIONS, "Internal error.");
    EXPECT_EQ(md_command(md_code_remedy(TMF_EINTERNAL), "tmf repair"),
              md_command(by, "tmf repair"));
    EXPECT_EQ(md_command(md_code_remedy(TMF_EINTERNAL), "tmf salvage"),
              md_command(by, "tmf salvage"));
    damage(64, std::string(2, '\0')); // no slot of a reader is free below the count
    expect_error("tmf read --keep msg", "Internal error.");
    EXPECT_EQ(sh(md_command(by, "tmf repair", "msg")).status, 0);
    expect_goes_on("msg");
    damage(good.size() - 1, "\xFE"); // nothing that counts
    EXPECT_THAT(sh(md_command(by, "tmf repair", "msg")).out, HasSubstr("msg: sound"));
    EXPECT_EQ(sh(md_command(by, "tmf salvage", "msg", "out")).status, 0);
    expect_goes_on("out");
}

// What it is that its records are read by: nothing can be repaired, and all of them saved.
TEST_F(HeadRemedy, ABeginningThatCannotBeReadIsSalvaged)
{
    const std::string version = "Records are in an unsupported format.";
    const std::string system = "Message file created on an incompatible system.";
    const std::string foreign = "File is not a message file.";
    const struct {
        size_t at;
        std::string bytes;
        std::string said;
        int code;
    } rows[] = {{74, std::string("\0\0", 2), version, TMF_EFORMAT},
                {74, std::string("\x09\0", 2), version, TMF_EFORMAT},
                {0, std::string("\0\0", 2), system, TMF_EINCOMPATIBLE},
                {1, "\x12", system, TMF_EINCOMPATIBLE},
                {4, "t", foreign, TMF_ENOTMSG},
                {0, std::string(256, 'x'), foreign, TMF_ENOTMSG},
                {0, std::string(4352, 'x'), foreign, TMF_ENOTMSG}};
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.at) + ": " + row.said);
        damage(row.at, row.bytes);
        expect_error("Kestro -synconly msg", "CAPERR: " + row.said);
        for (const char *looks : {"tmf verify msg", "tmf repair msg", "tmf info msg"})
            expect_error(looks, row.said);
        EXPECT_TRUE(read_file(dir.file("msg")) == damaged) << "it was changed";
        std::vector<std::string> remedies = {md_remedy(TOOL, row.said), md_code_remedy(row.code)};
        if (row.said != foreign) // where the name is another file's
            remedies.push_back(md_remedy(OPERATIONS, row.said));
        for (const std::string &by : remedies) {
            ASSERT_EQ(sh("rm -f out").status, 0);
            const run_result salvaged = sh(md_command(by, "tmf salvage", "msg", "out"));
            EXPECT_EQ(salvaged.status, 0) << salvaged.err;
            EXPECT_EQ(message_numbers("out"), from_to(1, RECORDS));
        }
        expect_goes_on("out");
    }
}

// What is taken for a new file's beginning that never came to the disk: its records are in the
// copy.
TEST_F(HeadRemedy, ABeginningOfZerosIsEmptiedAndSalvagedFromTheCopy)
{
    const std::string section = md_section(md_page(TOOL), "repair");
    const size_t at = section.find("- `zeros where its beginning should be`");
    ASSERT_NE(at, std::string::npos);
    damage(0, std::string(256, '\0'));
    expect_error("Kestro -synconly msg", "CAPERR: File is not a message file.");
    const run_result repaired = sh("tmf repair msg");
    EXPECT_EQ(repaired.status, 0) << repaired.err;
    EXPECT_THAT(repaired.out, HasSubstr("zeros where its beginning should be"));
    EXPECT_EQ(read_file(dir.file("msg")), "");
    EXPECT_TRUE(read_file(dir.file("msg.damaged")) == damaged);
    EXPECT_EQ(sh(md_command(section.substr(at), "tmf salvage", "msg", "out")).status, 0);
    expect_goes_on("out");
}
