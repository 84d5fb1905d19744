// Checks and repairs of files that are sound or none, how far a file is kept, the
// copy aside, and failures of the system.
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/repaired_file.h"
#include "tests/support/run.h"

#include <cerrno>

class TmfRepair : public RepairedFile {};

// ---- no damage

TEST_F(TmfRepair, SoundFileIsLeftAlone)
{
    for (const bool turned : {false, true}) {
        const std::string file = turned ? turned_around(golden_file) : golden_file;
        write_file(path, file);
        const tmf_check_result result = repair();
        EXPECT_EQ(result.found, 0);
        EXPECT_EQ(result.other_order, turned ? 1 : 0);
        EXPECT_EQ(result.records, 2);
        EXPECT_EQ(result.counted, 2);
        EXPECT_EQ(result.uncounted, 0);
        EXPECT_EQ(result.readers, 0);
        EXPECT_EQ(result.writers, 1);
        EXPECT_EQ(result.size, 4396);
        EXPECT_EQ(result.first, 4352);
        EXPECT_EQ(result.end, 4394);
        EXPECT_EQ(result.sound, 4394);
        EXPECT_EQ(result.aside, TMF_ASIDE_NONE);
        EXPECT_EQ(result.changed, 0);
        EXPECT_SAME_BYTES(bytes(), file);
        EXPECT_FALSE(has_aside());
    }
}

TEST_F(TmfRepair, EmptyFileIsSound)
{
    write_file(path, "");
    EXPECT_EQ(check().found, 0);
    EXPECT_EQ(repair().changed, 0);
    EXPECT_EQ(bytes(), "");
}

// A writer that was killed before it counted its record; and one behind it.
TEST_F(TmfRepair, WholeRecordsBehindTheEndAreToldAndStayThere)
{
    std::string file = golden_file;
    file.replace(4394, 2, framed("third") + framed("fourth") + "\xFF\xFF");
    write_file(path, file);
    EXPECT_EQ(check().uncounted, 2);
    EXPECT_EQ(repair().found, 0);
    EXPECT_SAME_BYTES(bytes(), file);
    file[file.size() - 1] = 0; // torn behind them: nobody's records
    write_file(path, file);
    EXPECT_EQ(check().uncounted, 0);
}

// What stands in the data area of an emptied file are records that were taken.
TEST_F(TmfRepair, TakenRecordsOfAnEmptiedFileAreNotToldAgain)
{
    std::string file = golden_file;
    put_positions(file, {0, 4352, 4352, 4394});
    write_file(path, file);
    EXPECT_EQ(check().found, 0);
    EXPECT_EQ(check().uncounted, 0);
}

TEST_F(TmfRepair, FileBehind2GiBIsSoundAndCanBeCut)
{
    write_file(path, golden_file);
    const int64_t end = (int64_t{1} << 31) + 36;
    const int fd = ::open(path.c_str(), O_RDWR);
    const std::string last = framed(some_data(1000)) + "\xFF\xFF";
    const int64_t first = end - static_cast<int64_t>(last.size()) + 2;
    ASSERT_EQ(pwrite(fd, last.data(), last.size(), first), ssize_t(last.size()));
    std::string area = golden_file.substr(0, 256);
    put_positions(area, {1, static_cast<int32_t>(first), static_cast<int32_t>(end), INT32_MAX});
    ASSERT_EQ(pwrite(fd, area.data(), area.size(), 0), 256);
    ::close(fd);
    EXPECT_EQ(check().found, 0);
    EXPECT_EQ(check().sound, end);
    const tmf_check_result result = repair(static_cast<int>(first));
    EXPECT_EQ(result.changed, 1);
    EXPECT_EQ(std::filesystem::file_size(path), 4354U);
    EXPECT_EQ(std::filesystem::file_size(aside), static_cast<uintmax_t>(end + 2));
    EXPECT_EQ(records_read().size(), 0U);
}

// ---- how far it is kept

TEST_F(TmfRepair, KeepsWholeRecordsUpToTheEndAskedFor)
{
    const struct {
        int keep_end;
        std::string expected;
    } rows[] = {{4394, golden_file},         {9999, golden_file},      {4393, with_first_record()},
                {4368, with_first_record()}, {4367, with_no_record()}, {4352, with_no_record()},
                {1, with_no_record()}};
    for (const auto &[keep_end, expected] : rows) {
        SCOPED_TRACE(keep_end);
        write_file(path, golden_file);
        const tmf_check_result result = repair(keep_end);
        EXPECT_EQ(result.found, 0);
        EXPECT_EQ(result.end, 4394);
        EXPECT_EQ(result.changed, expected == golden_file ? 0 : 1);
        EXPECT_SAME_BYTES(bytes(), expected);
    }
}

// Readers have taken the first record, and what is to be kept ends there.
TEST_F(TmfRepair, EndBeforeTheOldestRecordEmptiesTheFile)
{
    std::string file = golden_file;
    put_positions(file, {1, 4368, 4394, 4394});
    write_file(path, file);
    EXPECT_EQ(repair(4368).changed, 1);
    EXPECT_EQ(positions_in(bytes()), (positions{0, 4352, 4352, 4352}));
    EXPECT_SAME_BYTES(read_file(aside), file);
}

TEST_F(TmfRepair, UsersWaitListAndStampStayAndGoOn)
{
    make({"first", "second"});
    other_user writer(path, 0);
    other_user reader(path, TMF_MODE_READ);
    std::string before = bytes();
    before[125] = 0x10; // a wait that was broken off
    write_file(path, before);
    EXPECT_EQ(repair(4363).changed, 1);
    std::string expected = before.substr(0, 4363) + "\xFF\xFF";
    put_positions(expected, {1, 4352, 4363, 4363});
    EXPECT_SAME_BYTES(bytes(), expected);
    EXPECT_EQ(writer.close(), 0);
    EXPECT_EQ(reader.close(), 0);
    EXPECT_EQ(records_read(), std::vector<std::string>{"first"});
}

// ---- refusals

TEST_F(TmfRepair, ForeignFilesAreLeftAsTheyAre)
{
    std::string version = golden_file;
    version[74] = 3;
    std::string mark = golden_file;
    mark[0] = 0x12;
    std::string zeros_and_more(5000, '\0');
    zeros_and_more[4400 - 48] = 'x';
    std::string other_version = turned_around(version);
    const struct {
        std::string file;
        int code;
    } rows[] = {{"#!/bin/sh\n", TMF_ENOTMSG},
                {std::string(4352, 'x'), TMF_ENOTMSG},
                {zeros_and_more, TMF_ENOTMSG},
                {version, TMF_EFORMAT},
                {other_version, TMF_EFORMAT},
                {mark, TMF_EINCOMPATIBLE},
                {golden_file.substr(0, 255), TMF_EREAD_COMMON_EOF}};
    for (const auto &[file, code] : rows) {
        write_file(path, file);
        tmf_check_result result;
        EXPECT_EQ(tmf_check(path.c_str(), &result), code);
        EXPECT_EQ(tmf_geterrno(nullptr), code);
        EXPECT_EQ(tmf_repair(path.c_str(), 4352, aside.c_str(), &result), code);
        EXPECT_EQ(result.size, static_cast<long long>(file.size()));
        EXPECT_EQ(result.found, 0);
        EXPECT_SAME_BYTES(bytes(), file);
        EXPECT_FALSE(has_aside());
    }
}

TEST_F(TmfRepair, WhatIsNoFileGivesItsCode)
{
    tmf_check_result result;
    EXPECT_EQ(tmf_check(nullptr, &result), TMF_ENONAME);
    EXPECT_EQ(tmf_check("", &result), TMF_ENONAME);
    EXPECT_EQ(tmf_check(path.c_str(), &result), TMF_EOPEN);
    EXPECT_EQ(message_of(nullptr), "Error opening file: No such file or directory");
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(tmf_check(dir.file("").c_str(), &result), TMF_EOPEN);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(tmf_check(path.c_str(), &result), TMF_ENOTMSG);
    EXPECT_EQ(tmf_check("/dev/null", &result), TMF_ENOTMSG);
}

TEST_F(TmfRepair, WhatNobodyWantsToKnowIsNotTold)
{
    EXPECT_EQ(tmf_check(nullptr, nullptr), TMF_ENONAME);
    write_file(path, golden_file + "x");
    EXPECT_EQ(tmf_check(path.c_str(), nullptr), 0);
    write_file(path, golden_file.substr(0, golden_file.size() - 3));
    EXPECT_EQ(tmf_repair(path.c_str(), 0, nullptr, nullptr), 0);
    tmf_check_result result;
    EXPECT_EQ(tmf_check(path.c_str(), &result), 0);
    EXPECT_EQ(result.found, 0);
}

// A copy that would take the file's own place, or that cannot be had.
TEST_F(TmfRepair, NothingIsChangedWithoutItsCopy)
{
    std::string damaged = golden_file;
    damaged[16] = 3;
    write_file(path, damaged);
    ASSERT_EQ(link(path.c_str(), dir.file("other-name").c_str()), 0);
    ASSERT_EQ(link(path.c_str(), dir.file("x.part").c_str()), 0);
    for (const std::string &bad :
         {path, dir.file("other-name"), dir.file("x"), dir.file("none/aside"), dir.file("")}) {
        SCOPED_TRACE(bad);
        tmf_check_result result;
        EXPECT_EQ(tmf_repair(path.c_str(), 0, bad.c_str(), &result), TMF_EOPEN);
        EXPECT_EQ(result.aside, TMF_ASIDE_FAILED);
        EXPECT_EQ(result.changed, 0);
        EXPECT_SAME_BYTES(bytes(), damaged);
    }
    tmf_check_result result;
    EXPECT_EQ(tmf_repair(path.c_str(), 0, "", &result), TMF_ENONAME);
    EXPECT_EQ(tmf_repair(path.c_str(), 0, nullptr, &result), 0); // asked for without one
    EXPECT_EQ(result.aside, TMF_ASIDE_NONE);
    EXPECT_SAME_BYTES(bytes(), golden_file);
}

TEST_F(TmfRepair, OlderCopyIsReplacedAndHasTheFilesPermissions)
{
    std::string damaged = golden_file;
    damaged[16] = 3;
    write_file(path, damaged);
    write_file(aside, "older");
    write_file(aside + ".part", "left by a kill");
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    repair();
    EXPECT_SAME_BYTES(read_file(aside), damaged);
    EXPECT_FALSE(std::filesystem::exists(aside + ".part"));
    struct stat about = {};
    ASSERT_EQ(stat(aside.c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 0777, 0640U);
}

TEST_F(TmfRepair, WaitsForTheCommonLock)
{
    write_file(path, golden_file);
    lock_holder holder(path, 0, 256);
    other_process checker({[this] { return check().records; }});
    checker.start();
    ASSERT_TRUE(poll_until([&] { return is_asleep(checker.pid()); }));
    EXPECT_EQ(holder.unlock(), 0);
    EXPECT_EQ(checker.result(), 2);
    EXPECT_EQ(holder_of(path, 0, 256), 0);
}

// ---- failures of the system

TEST_F(TmfRepair, SystemErrorsGiveTheirCodes)
{
    std::string damaged = golden_file;
    damaged[16] = 3;
    const struct {
        call_kind call;
        int after;
        int code;
        bool unchanged;
    } rows[] = {
        {CALL_LOCKF, 0, TMF_ELOCK_WAIT, true},     {CALL_PREAD, 0, TMF_EREAD_COMMON, true},
        {CALL_PREAD, 1, TMF_EREAD_DATA, true},     {CALL_CALLOC, 0, TMF_EINTERNAL, true},
        {CALL_MALLOC, 0, TMF_EINTERNAL, true},     {CALL_PREAD, 2, TMF_EOPEN, true},
        {CALL_PWRITE, 0, TMF_EOPEN, true},         {CALL_FTRUNCATE, 0, TMF_EOPEN, true},
        {CALL_OPEN, 1, TMF_EOPEN, true},           {CALL_PWRITE, 1, TMF_EWRITE_COMMON, true},
        {CALL_FTRUNCATE, 1, TMF_ETRUNCATE, false}, {CALL_PWRITE, 2, TMF_EWRITE_DATA, false},
        {CALL_LOCKF, 1, TMF_EUNLOCK, false}};
    for (const auto &[call, after, code, unchanged] : rows) {
        SCOPED_TRACE(std::to_string(call) + " after " + std::to_string(after));
        write_file(path, damaged);
        unlink(aside.c_str());
        fail_call(call, EIO, after);
        tmf_check_result result;
        EXPECT_EQ(tmf_repair(path.c_str(), 0, aside.c_str(), &result), code);
        EXPECT_EQ(result.changed, unchanged ? 0 : 1);
        EXPECT_FALSE(std::filesystem::exists(aside + ".part"));
        const std::string left = bytes();
        EXPECT_SAME_BYTES(left.substr(0, 4394),
                          (unchanged ? damaged : golden_file).substr(0, 4394));
        forget_calls();
    }
}
