// A repair, the register of readers, and a writer that removes old files, with each system call
// failing in turn: nothing goes that is not kept, and what is run again comes through.
#include "tests/fwutil/failing_fixture.h"

#include "fwutil/fwu_error.h"
#include "fwutil/fwu_readers.h"
#include "fwutil/fwu_repair.h"

namespace fs = std::filesystem;

class FailingRepair : public failing_test {
  protected:
    // Three files of one transaction each, acknowledged up to the second one; the second one has a
    // damaged byte behind its first transaction.
    void damage(bool acknowledged)
    {
        clear();
        config.log_file_size = 300;
        open_writer();
        add({insert(1)});
        whole = log_file_bytes(1).size();
        add({insert(2)});
        add({insert(3)});
        add({insert(4)});
        ASSERT_EQ(0, fwu_writer_sync(writer));
        if (acknowledged) {
            ASSERT_EQ(0, fwu_writer_acknowledge(writer));
        }
        close_writer();
        config.log_file_size = 64 << 20;
        damaged = log_file_bytes(1);
        damaged[damaged.size() - 70] ^= 1;
        write_file(file(1), damaged);
        second = log_file_bytes(2);
        piece = fwu_log_file_name(1, 1) + "-from-" + std::to_string(whole);
        write_file(log + "/cut-" + piece, "of an earlier repair");
        if (!acknowledged)
            fs::remove(log + "/acknowledged");
    }
    void repair()
    {
        fwu_repair r;
        rc = fwu_repair_open(r, config, false);
        if (rc == 0)
            rc = fwu_repair_carry_out(r);
        fwu_repair_close(r);
    }
    // Whether a file beside the log has these bytes, under the first name that was free.
    bool kept(const std::string &name, const std::string &bytes) const
    {
        const std::string path = log + "/cut-" + name;
        return read_file(path) == bytes || read_file(path + ".2") == bytes ||
               read_file(path + ".3") == bytes;
    }
    // All bytes are there, in the log or beside it.
    void expect_kept() const
    {
        const std::string now = log_file_bytes(1);
        EXPECT_TRUE(now == damaged ||
                    (now == damaged.substr(0, whole) && kept(piece, damaged.substr(whole))));
        EXPECT_TRUE(read_file(file(2)) == second || kept(fwu_log_file_name(1, 2), second));
        EXPECT_EQ("of an earlier repair", read_file(log + "/cut-" + piece));
    }
    // The next repair comes through, and what it leaves to the next writer that cuts off.
    void expect_repaired()
    {
        expect_kept();
        err = stderr_of([&] { repair(); });
        ASSERT_EQ(0, rc) << err;
        EXPECT_FALSE(fs::exists(file(2)));
        expect_kept();
        written.resize(1);
        (void)stderr_of([&] {
            fwu_writer *w = nullptr;
            ASSERT_EQ(0, fwu_writer_open(&w, config));
            EXPECT_EQ(damaged.substr(0, whole), log_file_bytes(1));
            uint64_t lsn = 0;
            EXPECT_TRUE(fwu_writer_lost(w, &lsn)) << "nobody goes on in silence";
            EXPECT_EQ(64U, lsn);
            EXPECT_EQ(0, fwu_writer_accept_loss(w));
            EXPECT_EQ(0, fwu_writer_close(w));
        });
        expect_kept();
        expect_goes_on();
    }
    size_t whole = 0; // bytes of the first file that are
    std::string damaged;
    std::string second;
    std::string piece; // that goes of the first file
};

TEST_F(FailingRepair, OfWhatWasAcknowledged)
{
    EXPECT_EQ(
        R"(
stat64: LOG: cannot open the log directory: EIO
open: LOG/writer.lock: cannot open the writer's lock file: EIO
fcntl: LOG/writer.lock: cannot lock the log for writing: EIO
open: LOG/acknowledged: cannot read what was acknowledged: EIO
fstat64: goes on
pread64: LOG/acknowledged: cannot read what was acknowledged: EIO
opendir: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: LOG: cannot read the log directory: EIO
open: LOG/fw0001-00000001.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000001.log: cannot read the log file: EIO
stat64: LOG/fw0001-00000001.log: cannot get the log file's size: EIO
open: LOG/fw0001-00000001.log: cannot read the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot open the log file: EIO
lstat64: LOG/cut-fw0001-00000001.log-from-288: cannot tell whether the file is there: EIO
lstat64: LOG/cut-fw0001-00000001.log-from-288.2: cannot tell whether the file is there: EIO
stat64: LOG/fw0001-00000002.log: cannot get the log file's size: EIO
open: LOG/fw0001-00000002.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: LOG/fw0001-00000002.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000002.log: cannot open the log file: EIO
lstat64: LOG/cut-fw0001-00000002.log: cannot tell whether the file is there: EIO
open: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
unlink: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
fchmod: goes on
pread64: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
lseek: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
write: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
fsync: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
rename: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
open: LOG: cannot bring the log directory to disk: EIO
fsync: LOG: cannot bring the log directory to disk: EIO
open: LOG/acknowledged: cannot keep what was acknowledged: EIO
lseek: LOG/acknowledged: cannot keep what was acknowledged: EIO
write: LOG/acknowledged: cannot keep what was acknowledged: EIO
fdatasync: LOG/acknowledged: cannot keep what was acknowledged: EIO
rename: LOG/fw0001-00000002.log: cannot rename the log file; repair again: EIO
stat64: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
open: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
unlink: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
pread64: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
lseek: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
write: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
fsync: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
chmod: goes on
rename: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
)",
        failures([&] { damage(true); }, noted([&] { repair(); }), [&] { expect_repaired(); }));
}

TEST_F(FailingRepair, OfALogOfWhichNobodyKnowsWhatWasAcknowledged)
{
    EXPECT_EQ(
        R"(
stat64: LOG: cannot open the log directory: EIO
open: LOG/writer.lock: cannot open the writer's lock file: EIO
fcntl: LOG/writer.lock: cannot lock the log for writing: EIO
open: LOG/acknowledged: cannot read what was acknowledged: EIO
opendir: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: LOG: cannot read the log directory: EIO
open: LOG/fw0001-00000001.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000001.log: cannot read the log file: EIO
stat64: LOG/fw0001-00000001.log: cannot get the log file's size: EIO
open: LOG/fw0001-00000001.log: cannot read the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot open the log file: EIO
lstat64: LOG/cut-fw0001-00000001.log-from-288: cannot tell whether the file is there: EIO
lstat64: LOG/cut-fw0001-00000001.log-from-288.2: cannot tell whether the file is there: EIO
stat64: LOG/fw0001-00000002.log: cannot get the log file's size: EIO
open: LOG/fw0001-00000002.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: LOG/fw0001-00000002.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000002.log: cannot open the log file: EIO
lstat64: LOG/cut-fw0001-00000002.log: cannot tell whether the file is there: EIO
open: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
unlink: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
fchmod: goes on
pread64: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
lseek: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
write: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
fsync: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
rename: LOG/cut-fw0001-00000001.log-from-288.2: cannot keep what is cut off; nothing was changed: EIO
open: LOG: cannot bring the log directory to disk: EIO
fsync: LOG: cannot bring the log directory to disk: EIO
unlink: LOG/acknowledged: cannot create the file of what was acknowledged: EIO
open: LOG/acknowledged: cannot create the file of what was acknowledged: EIO
lseek: LOG/acknowledged: cannot create the file of what was acknowledged: EIO
write: LOG/acknowledged: cannot create the file of what was acknowledged: EIO
fsync: LOG/acknowledged: cannot create the file of what was acknowledged: EIO
rename: LOG/acknowledged: cannot create the file of what was acknowledged: EIO
rename: LOG/fw0001-00000002.log: cannot rename the log file; repair again: EIO
stat64: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
open: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
unlink: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
pread64: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
lseek: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
write: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
fsync: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
chmod: goes on
rename: LOG/fw0001-00000001.log: cannot cut the log file back; repair again: EIO
)",
        failures([&] { damage(false); }, noted([&] { repair(); }), [&] { expect_repaired(); }));
}

// What a look at a log that nobody may write to finds is the same.
TEST_F(FailingRepair, ALookChangesNothing)
{
    std::string before;
    const auto prepare = [&] {
        damage(true);
        fs::remove(log + "/writer.lock");
    };
    const auto look = [&] {
        fwu_repair r;
        rc = fwu_repair_open(r, config, true);
        if (rc == 0) {
            EXPECT_EQ(file(1), r.damaged);
            EXPECT_EQ(2U, r.kept.size());
        }
        fwu_repair_close(r);
    };
    EXPECT_EQ(R"(
stat64: LOG: cannot open the log directory: EIO
access: goes on
open: LOG/acknowledged: cannot read what was acknowledged: EIO
fstat64: goes on
pread64: LOG/acknowledged: cannot read what was acknowledged: EIO
opendir: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: LOG: cannot read the log directory: EIO
open: LOG/fw0001-00000001.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000001.log: cannot read the log file: EIO
stat64: LOG/fw0001-00000001.log: cannot get the log file's size: EIO
open: LOG/fw0001-00000001.log: cannot read the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot open the log file: EIO
lstat64: LOG/cut-fw0001-00000001.log-from-288: cannot tell whether the file is there: EIO
lstat64: LOG/cut-fw0001-00000001.log-from-288.2: cannot tell whether the file is there: EIO
stat64: LOG/fw0001-00000002.log: cannot get the log file's size: EIO
open: LOG/fw0001-00000002.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: LOG/fw0001-00000002.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000002.log: cannot open the log file: EIO
lstat64: LOG/cut-fw0001-00000002.log: cannot tell whether the file is there: EIO
)",
              failures(prepare, noted(look), [&] { EXPECT_EQ(damaged, log_file_bytes(1)); }));
}

class FailingReaders : public failing_test {
  protected:
    void fill()
    {
        clear();
        config.log_file_size = 1;
        config.keep = {};
        open_writer();
        for (int n = 1; n <= 5; n++)
            add({insert(n)});
        close_writer();
    }
    void enroll(const std::vector<std::string> &paths)
    {
        fwu_readers_lock lock;
        rc = -1;
        if (fwu_readers_take_lock(lock, log, true) == FWU_FOUND)
            rc = fwu_readers_write(log, paths);
    }
};

TEST_F(FailingReaders, TheRegisterIsTheOldOneOrTheNewOne)
{
    const std::vector<std::string> before = {"/a/status"};
    const std::vector<std::string> after = {"/a/status", "/b/status"};
    const auto prepare = [&] {
        fill();
        (void)enroll(before);
    };
    const auto look = [&] {
        std::vector<std::string> found;
        EXPECT_EQ(FWU_FOUND, fwu_readers_read(log, found));
        EXPECT_TRUE(found == after || (rc != 0 && found == before));
        enroll(after);
        EXPECT_EQ(0, rc);
        EXPECT_EQ(FWU_FOUND, fwu_readers_read(log, found));
        EXPECT_EQ(after, found);
    };
    EXPECT_EQ(R"(
stat64: LOG/readers.lock: cannot open the lock file of the register of readers: EIO
open: LOG/readers.lock: cannot open the lock file of the register of readers: EIO
fstat64: goes on
fcntl: LOG/readers.lock: cannot lock the register of readers: EIO
unlink: goes on
stat64: LOG/readers: cannot write the register of readers: EIO
open: LOG/readers: cannot write the register of readers: EIO
fchmod: goes on
lseek: LOG/readers: cannot write the register of readers: EIO
write: LOG/readers: cannot write the register of readers: EIO
fsync: LOG/readers: cannot write the register of readers: EIO
rename: LOG/readers: cannot write the register of readers: EIO
open: LOG: cannot bring the log directory to disk: EIO
fsync: LOG: cannot bring the log directory to disk: EIO
)",
              failures(prepare, noted([&] { enroll(after); }), look));
}

// The files that the reader of the third record needs stay, whatever cannot be asked.
TEST_F(FailingReaders, WhatTheyNeedStays)
{
    size_t left = 0;
    const auto prepare = [&] {
        fill();
        on_record = [](const seen &record) { return record.recnum == 4 ? 1 : 0; };
        (void)run();
        on_record = nullptr;
        enroll({fs::canonical(status)});
        config.keep = {.acknowledged = true, .text = "acknowledged"};
    };
    const auto open = [&] { rc = fwu_writer_open(&writer, config); };
    const auto look = [&] {
        drop_writer();
        for (int n = 3; n <= 5; n++)
            EXPECT_TRUE(fs::exists(file(n))) << n;
        left = fs::exists(file(1)) + fs::exists(file(2));
        const run_outcome rest = run();
        EXPECT_EQ(0, rest.result) << rest.err;
        EXPECT_EQ(written_from(4), rest.records);
    };
    EXPECT_EQ(R"(
mkdir: LOG: cannot create the log directory: EIO
stat64: LOG: cannot open the log directory: EIO
open: LOG/writer.lock: cannot open the writer's lock file: EIO
fcntl: LOG/writer.lock: cannot lock the log for writing: EIO
open: LOG/acknowledged: cannot read what was acknowledged: EIO
fstat64: goes on
pread64: LOG/acknowledged: cannot read what was acknowledged: EIO
opendir: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: LOG: cannot read the log directory: EIO
open: LOG/fw0001-00000005.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000005.log: cannot read the log file: EIO
open: LOG/fw0001-00000005.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000005.log: cannot read the log file: EIO
open: LOG/fw0001-00000004.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000004.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000004.log: cannot read the log file: EIO
open: LOG/fw0001-00000005.log: cannot open the log file for writing: EIO
fstat64: LOG/fw0001-00000005.log: cannot get the log file's size: EIO
access: LOG/sync-failed: cannot tell whether the file is there: EIO
realpath: goes on
stat64: goes on warning: old log files stay: LOG/readers.lock: cannot open the lock file of the register of readers: EIO
open: goes on warning: old log files stay: LOG/readers.lock: cannot open the lock file of the register of readers: EIO
fcntl: goes on warning: old log files stay: LOG/readers.lock: cannot lock the register of readers: EIO
opendir: goes on warning: old log files stay: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: goes on warning: old log files stay: LOG: cannot read the log directory: EIO
stat64: goes on warning: old log files stay: LOG/fw0001-00000001.log: cannot get the log file's size: EIO
stat64: goes on warning: old log files stay: LOG/fw0001-00000002.log: cannot get the log file's size: EIO
stat64: goes on warning: old log files stay: LOG/fw0001-00000003.log: cannot get the log file's size: EIO
stat64: goes on warning: old log files stay: LOG/fw0001-00000004.log: cannot get the log file's size: EIO
stat64: goes on warning: old log files stay: LOG/fw0001-00000005.log: cannot get the log file's size: EIO
open: goes on warning: old log files stay: LOG/readers: cannot read the register of readers: EIO
read: goes on warning: old log files stay: LOG/readers: cannot read the register of readers: EIO
stat64: goes on
open: goes on warning: old log files stay: DIR/fwutil.status: cannot open the status file: EIO
pread64: goes on warning: old log files stay: DIR/fwutil.status: cannot read the status file: EIO
open: goes on warning: old log files stay: LOG/fw0001-00000003.log: cannot read the log file: EIO
pread64: goes on warning: old log files stay: LOG/fw0001-00000003.log: cannot read the log file: EIO
open: goes on warning: old log files stay: LOG/fw0001-00000003.log: cannot open the log file: EIO
fstat64: goes on warning: old log files stay: LOG/fw0001-00000003.log: cannot read the log file: EIO
stat64: goes on warning: old log files stay: LOG/fw0001-00000001.log: cannot remove the log file: EIO; it and the newer ones are left
unlink: goes on warning: old log files stay: LOG/fw0001-00000001.log: cannot remove the log file: EIO; it and the newer ones are left
stat64: goes on warning: old log files stay: LOG/fw0001-00000002.log: cannot remove the log file: EIO; it and the newer ones are left
unlink: goes on warning: old log files stay: LOG/fw0001-00000002.log: cannot remove the log file: EIO; it and the newer ones are left
open: goes on warning: old log files stay: LOG: cannot bring the log directory to disk: EIO
fsync: goes on warning: old log files stay: LOG: cannot bring the log directory to disk: EIO
statvfs: goes on
)",
              failures(prepare, noted(open), look));
    EXPECT_EQ(0U, left);
}

// A file whose age the system does not tell is not taken for an old one.
TEST_F(FailingReaders, WhatLogKeepKeepsStays)
{
    const auto prepare = [&] {
        fill();
        config.keep = {.seconds = 3600, .text = "1h"};
    };
    const auto look = [&] {
        drop_writer();
        for (int n = 1; n <= 5; n++)
            EXPECT_TRUE(fs::exists(file(n))) << n;
    };
    (void)failures(prepare, noted([&] { rc = fwu_writer_open(&writer, config); }), look);
}
