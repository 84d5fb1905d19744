// fwlog csv, fwlog layout and capread have refused: what docs/fwlog.md and docs/capread.md say to
// do is done, and every record is printed.
#include "tests/remedies/remedy_fixture.h"

using testing::HasSubstr;

class CsvRemedy : public RemedyRun {};

TEST_F(CsvRemedy, ALayoutComesWithTheFirstChange)
{
    EXPECT_EQ(md_remedy("docs/fwlog.md", "... no layout of any dataset"),
              "load or follow something first");
    expect_error("mkdir log && fwlog layout --columns",
                 "no layout of any dataset; it comes with the first change");
    append(100);
    EXPECT_THAT(sh("fwlog layout --columns").out, HasSubstr("NUMBER"));
    // "fwlog info lists the datasets."
    const std::string cell =
        md_remedy("docs/fwlog.md", "... no layout of a dataset that --dset selects");
    expect_error("fwlog layout --columns --dset other",
                 "no layout of a dataset that --dset selects");
    EXPECT_THAT(sh(md_command(cell, "fwlog info")).out, HasSubstr("COUNTER"));
    EXPECT_THAT(sh("fwlog layout --columns --dset counter").out, HasSubstr("NUMBER"));
}

TEST_F(CsvRemedy, ColumnsAreThoseThatTheLayoutShows)
{
    append(100);
    const std::string cell = md_remedy("docs/fwlog.md", "D in its layout of P has no column NAME");
    expect_error("fwlog csv --columns NO", "has no column NO; ");
    const std::string shown = sh(md_command(cell, "fwlog layout")).out;
    ASSERT_THAT(shown, HasSubstr("NUMBER"));
    EXPECT_EQ(sh("fwlog csv --columns NUMBER | wc -l").out, "101\n");
}

TEST_F(CsvRemedy, ADirectoryThatIsNotThereIsMade)
{
    append(100);
    EXPECT_THAT(md_remedy("docs/fwlog.md", "FILE: cannot create the file: ..."),
                HasSubstr("make the directory"));
    expect_error("fwlog csv --dir there", "cannot create the file: ");
    EXPECT_EQ(sh("mkdir there && fwlog csv --dir there").status, 0);
    EXPECT_EQ(sh("cat there/* | wc -l").out, "101\n");
}

class CaptureFileRemedy : public RemedyRun {
  protected:
    static constexpr char PAGE[] = "docs/capread.md";

    void SetUp() override
    {
        RemedyRun::SetUp();
        append(100);
        expect_good("Kestro -synconly -ascii -yyyy text -yyyy msg");
    }
    size_t printed(const std::string &words)
    {
        const run_result run = sh("capread " + words);
        EXPECT_EQ(run.status, 0) << run.err;
        size_t changes = 0;
        for (size_t at = run.out.find("\"op\":\"c\""); at != std::string::npos;
             at = run.out.find("\"op\":\"c\"", at + 1))
            changes++;
        return changes;
    }
};

TEST_F(CaptureFileRemedy, OptionsAreThoseOfTheCapture)
{
    EXPECT_THAT(md_remedy(PAGE, "at offset N stands"),
                HasSubstr("give the options that the file was captured with"));
    expect_error("capread -cfg fwutil.cfg msg", "where these options have the time");
    EXPECT_EQ(printed("-cfg fwutil.cfg -yyyy msg"), 100U);
    expect_error("capread -cfg fwutil.cfg -ascii text", "where these options have the time");
    EXPECT_EQ(printed("-cfg fwutil.cfg -ascii -yyyy text"), 100U);
    expect_error("capread -cfg fwutil.cfg -ascii -yyyy -recnum text",
                 "where these options have the log record number");
    // A line that was cut: those before it are printed, and all once it is whole.
    const std::string whole = read_file(dir.file("text"));
    EXPECT_THAT(md_remedy(PAGE, "the line has N bytes, where one of A has N"),
                HasSubstr("or the line was cut"));
    write_file(dir.file("text"), whole.substr(0, 90) + whole.substr(92));
    expect_error("capread -cfg fwutil.cfg -ascii -yyyy text", ", where one of TESTDB.COUNTER has ");
    write_file(dir.file("text"), whole);
    EXPECT_EQ(printed("-cfg fwutil.cfg -ascii -yyyy text"), 100U);
    // A NUL byte in a text of -dirty: captured into a message file.
    EXPECT_THAT(md_remedy(PAGE, "the line does not end where one of A has N bytes"),
                HasSubstr("capture it into a message file"));
    write_file(dir.file("text"), whole.substr(0, whole.size() - 1) + "x\n");
    expect_error("capread -cfg fwutil.cfg -ascii -yyyy text", "the line does not end where ");
    EXPECT_EQ(printed("-cfg fwutil.cfg -yyyy msg"), 100U);
}

TEST_F(CaptureFileRemedy, ALineWithoutItsEndIsCapturedAnew)
{
    EXPECT_THAT(md_remedy(PAGE, "the line does not end within N bytes"),
                HasSubstr("capture it anew from the log, under a new name and with a new status "
                          "file (`-stat`)"));
    const std::string whole = read_file(dir.file("text"));
    const size_t line = whole.find('\n') + 1;
    write_file(dir.file("text"), whole.substr(0, 50 * line) + whole.substr(0, line - 1) +
                                     std::string(8 * 1024 * 1024, 'x'));
    expect_error("capread -cfg fwutil.cfg -ascii -yyyy --dset testdb:other text",
                 "record 51: at byte " + std::to_string(50 * line) +
                     ": the line does not end within ");
    expect_good("Kestro -synconly -stat anew.status -ascii -yyyy anew");
    EXPECT_EQ(read_file(dir.file("anew")), whole);
    EXPECT_EQ(printed("-cfg fwutil.cfg -ascii -yyyy anew"), 100U);
}

TEST_F(CaptureFileRemedy, ALayoutIsTakenFromTheLog)
{
    EXPECT_THAT(md_remedy(PAGE, "has no layout of"), HasSubstr("give `--layout`"));
    EXPECT_EQ(sh("fwlog layout --json -ascii -yyyy >layouts.json").status, 0);
    ASSERT_EQ(sh("mv log away && mkdir log").status, 0);
    EXPECT_EQ(sh("capread -cfg fwutil.cfg -ascii -yyyy text").status, 1);
    EXPECT_EQ(printed("--layout layouts.json -ascii -yyyy text"), 100U);
}

// Datasets of other items: one record of each layout, in the same order.
static void log_records(const tempdir &dir,
                        const std::vector<std::pair<fwu_layout, std::string>> &all)
{
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    for (const auto &[layout, image] : all)
        EXPECT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, layout, 1700000000,
                                    static_cast<int>(image.size()), nullptr, image.data()),
                  0);
    fwu_commit commit;
    commit.time_us = 1700000000LL * 1000000;
    commit.lsn = 1000000;
    EXPECT_EQ(fwu_writer_commit(writer, commit), 0);
    fwu_writer_close(writer);
}

TEST_F(CaptureFileRemedy, NumbersAreReadAndCapturedAsTheMessagesSay)
{
    log_records(dir, {{{"TESTDB", "PACKED", {{"NET", 'P', 2}}, {}}, std::string("\x12\x3c")}});
    expect_good("Kestro -synconly -ascii -dset testdb:packed packed");
    EXPECT_THAT(md_remedy(PAGE, "item I: \"...\" is not a packed decimal number of -bwfmt"),
                HasSubstr("give the options of the capture, `-bwfmt` only if it had that"));
    expect_error("capread -cfg fwutil.cfg -ascii -bwfmt packed",
                 "is not a packed decimal number of -bwfmt");
    EXPECT_EQ(printed("-cfg fwutil.cfg -ascii packed"), 1U);
}

TEST_F(CaptureFileRemedy, FloatsAreCapturedAsTheMessageSays)
{
    EXPECT_EQ(md_remedy(PAGE, "does not tell little-endian floating-point numbers"),
              "capture as it says");
    log_records(dir, {{{"TESTDB", "RATES", {{"RATE", 'E', 4}}, {}}, std::string("\0\0\0\x3f", 4)}});
    expect_good("Kestro -synconly -asciirev -dset testdb:rates reversed");
    const std::string err = expect_error("capread -cfg fwutil.cfg -asciirev reversed",
                                         "-endian floating-point numbers; capture with ");
    const size_t at = err.find("capture with ") + 13;
    const std::string option = err.substr(at, err.find_first_of(" \n", at) - at);
    expect_good("Kestro -synconly -start 1 " + option + " -dset testdb:rates plain");
    EXPECT_EQ(sh("capread -cfg fwutil.cfg " + option + " plain | grep -c '\"RATE\":0.5'").out,
              "1\n");
}

TEST_F(CaptureFileRemedy, OneOfTwoDatabasesIsGivenByItsLayout)
{
    const std::string cell = md_remedy(PAGE, "these headers do not tell them apart");
    EXPECT_THAT(cell, HasSubstr("give `--layout` with one of them"));
    const std::vector<fwu_item> items = {{"A", 'X', 2}};
    log_records(dir, {{{"ONEDB", "SAME", items, {}}, "ab"}, {{"TWODB", "SAME", items, {}}, "cd"}});
    expect_good("Kestro -synconly -info DBNAME -dset onedb:same same");
    expect_error("capread -cfg fwutil.cfg -info DBNAME same",
                 "these headers do not tell them apart");
    EXPECT_EQ(sh("fwlog layout --json -info DBNAME --dset onedb:same >one.json").status, 0);
    EXPECT_EQ(printed("--layout one.json -info DBNAME same"), 1U);
}
