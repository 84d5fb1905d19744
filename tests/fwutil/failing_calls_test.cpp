// The log and its readers with each system call failing in turn: what is told, that no record is
// lost or comes twice where none may, and that the next run goes on.
#include "tests/fwutil/failing_fixture.h"

#include "fwutil/fwu_file.h"
#include "fwutil/fwu_identity.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::ElementsAre;

class FailingWriter : public failing_test {
  protected:
    void open()
    {
        rc = fwu_writer_open(&writer, config);
    }
    // Two files; three records in the first one, two in the last.
    void fill()
    {
        clear();
        two_files();
        config.log_file_size = 64 << 20;
    }
};

TEST_F(FailingWriter, MakesTheDirectory)
{
    EXPECT_EQ(R"(
mkdir: LOG: cannot create the log directory: EIO
chmod: goes on
stat64: LOG: cannot open the log directory: EIO
open: LOG/writer.lock: cannot open the writer's lock file: EIO
fchmod: goes on
fcntl: LOG/writer.lock: cannot lock the log for writing: EIO
open: LOG/acknowledged: cannot read what was acknowledged: EIO
opendir: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: LOG: cannot read the log directory: EIO
realpath: goes on
opendir: goes on
readdir: goes on
open: goes on
statvfs: goes on
)",
              failures([&] { clear(); }, noted([&] { open(); }), [&] { expect_goes_on(); }));
}

TEST_F(FailingWriter, FindsTheEnd)
{
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
open: LOG/fw0001-00000002.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: LOG/fw0001-00000002.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: LOG/fw0001-00000001.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000001.log: cannot read the log file: EIO
open: LOG/fw0001-00000002.log: cannot open the log file for writing: EIO
fstat64: LOG/fw0001-00000002.log: cannot get the log file's size: EIO
access: LOG/sync-failed: cannot tell whether the file is there: EIO
realpath: goes on
opendir: goes on
readdir: goes on
stat64: goes on
open: goes on
statvfs: goes on
)",
              failures([&] { fill(); }, noted([&] { open(); }), [&] { expect_goes_on(); }));
}

// The last transaction was acknowledged by nobody and has a damaged byte.
TEST_F(FailingWriter, KeepsWhatItCutsOff)
{
    const auto tear = [&] {
        fill();
        open_writer();
        ASSERT_EQ(0, fwu_writer_sync(writer));
        ASSERT_EQ(0, fwu_writer_acknowledge(writer));
        add({insert(9)});
        close_writer();
        std::string bytes = log_file_bytes(2);
        bytes[bytes.size() - 70] ^= 1;
        write_file(file(2), bytes);
        write_file(log + "/cut-fw0001-00000002.log-1", "an older piece");
        written.pop_back();
    };
    EXPECT_EQ(R"(
mkdir: LOG: cannot create the log directory: EIO
stat64: LOG: cannot open the log directory: EIO
open: LOG/writer.lock: cannot open the writer's lock file: EIO
fcntl: LOG/writer.lock: cannot lock the log for writing: EIO
open: LOG/acknowledged: cannot read what was acknowledged: EIO
fstat64: goes on LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole; kept in cut-fw0001-00000002.log-368
pread64: LOG/acknowledged: cannot read what was acknowledged: EIO
opendir: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: LOG: cannot read the log directory: EIO
open: LOG/fw0001-00000002.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: LOG/fw0001-00000002.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: LOG/fw0001-00000001.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000001.log: cannot read the log file: EIO
open: LOG/fw0001-00000002.log: cannot open the log file for writing: EIO
fstat64: LOG/fw0001-00000002.log: cannot get the log file's size: EIO
open: goes on LOG/cut-fw0001-00000002.log-368: cannot keep what is cut off: EIO / LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole
unlink: goes on LOG/cut-fw0001-00000002.log-368: cannot keep what is cut off: EIO / LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole
fchmod: goes on LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole; kept in cut-fw0001-00000002.log-368
pread64: goes on LOG/cut-fw0001-00000002.log-368: cannot keep what is cut off: EIO / LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole
lseek: goes on LOG/cut-fw0001-00000002.log-368: cannot keep what is cut off: EIO / LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole
write: goes on LOG/cut-fw0001-00000002.log-368: cannot keep what is cut off: EIO / LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole
fsync: goes on LOG/cut-fw0001-00000002.log-368: cannot keep what is cut off: EIO / LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole
opendir: goes on LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole; kept in cut-fw0001-00000002.log-368
readdir: goes on LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole; kept in cut-fw0001-00000002.log-368
unlink: goes on LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole; kept in cut-fw0001-00000002.log-368
ftruncate64: LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole; kept in cut-fw0001-00000002.log-368 / LOG/fw0001-00000002.log: cannot cut the log file back to its last transaction: EIO
access: LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole; kept in cut-fw0001-00000002.log-368 / LOG/sync-failed: cannot tell whether the file is there: EIO
realpath: goes on LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole; kept in cut-fw0001-00000002.log-368
stat64: goes on LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole; kept in cut-fw0001-00000002.log-368
open: goes on LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole; kept in cut-fw0001-00000002.log-368
statvfs: goes on LOG/fw0001-00000002.log: cut 136 bytes behind offset 368: never acknowledged, and not whole; kept in cut-fw0001-00000002.log-368
)",
              failures(tear, noted([&] { open(); }), [&] { expect_goes_on(); }));
}

TEST_F(FailingWriter, WritesAgainWhatDidNotReachTheDisk)
{
    const auto prepare = [&] {
        fill();
        write_file(log + "/sync-failed", "");
    };
    EXPECT_EQ(R"(
mkdir: LOG: cannot create the log directory: EIO
stat64: LOG: cannot open the log directory: EIO
open: LOG/writer.lock: cannot open the writer's lock file: EIO
fcntl: LOG/writer.lock: cannot lock the log for writing: EIO
open: LOG/acknowledged: cannot read what was acknowledged: EIO
fstat64: goes on LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again
pread64: LOG/acknowledged: cannot read what was acknowledged: EIO
opendir: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: LOG: cannot read the log directory: EIO
open: LOG/fw0001-00000002.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: LOG/fw0001-00000002.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: LOG/fw0001-00000001.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000001.log: cannot read the log file: EIO
open: LOG/fw0001-00000002.log: cannot open the log file for writing: EIO
fstat64: LOG/fw0001-00000002.log: cannot get the log file's size: EIO
access: LOG/sync-failed: cannot tell whether the file is there: EIO
pread64: LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again / LOG/fw0001-00000002.log: cannot read the log file: EIO
lseek: LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again / LOG/fw0001-00000002.log: cannot write to the log file: EIO
write: LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again / LOG/fw0001-00000002.log: cannot write to the log file: EIO
fdatasync: LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again / LOG/fw0001-00000002.log: cannot bring the log file to disk: EIO
open: LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again / LOG: cannot bring the log directory to disk: EIO
fsync: LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again / LOG: cannot bring the log directory to disk: EIO
unlink: LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again / LOG/sync-failed: cannot remove the file: EIO
realpath: goes on LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again
opendir: goes on LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again
readdir: goes on LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again
stat64: goes on LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again
open: goes on LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again
statvfs: goes on LOG/fw0001-00000002.log: an earlier run could not bring it to disk: written again
)",
              failures(prepare, noted([&] { open(); }), [&] { expect_goes_on(); }));
}

// One that counts as acknowledged when that was told.
class FailingCommit : public FailingWriter {
  protected:
    std::string commit_into(int64_t file_size)
    {
        bool committed = false;
        const auto prepare = [&] {
            fill();
            config.log_file_size = file_size;
            open_writer();
        };
        const auto operation = [&] {
            committed = false;
            rc = -1;
            if (fwu_writer_begin(writer, nullptr) != 0 || put(insert(4)) != 0 || commit() != 0)
                return;
            committed = true;
            if (fwu_writer_sync(writer) == 0)
                rc = fwu_writer_acknowledge(writer);
        };
        const auto look = [&] {
            if (committed) {
                written.push_back(insert(4));
                written.back().recnum = 6;
            }
            expect_goes_on();
        };
        return failures(prepare, noted(operation), look);
    }
};

TEST_F(FailingCommit, ReachesTheDisk)
{
    EXPECT_EQ(R"(
lseek: LOG/fw0001-00000002.log: cannot write to the log file: EIO
write: LOG/fw0001-00000002.log: cannot write to the log file: EIO
fdatasync: LOG/fw0001-00000002.log: cannot bring the log file to disk: EIO
open: LOG: cannot bring the log directory to disk: EIO
fsync: LOG: cannot bring the log directory to disk: EIO
open: LOG/acknowledged: cannot keep what was acknowledged: EIO
lseek: LOG/acknowledged: cannot keep what was acknowledged: EIO
write: LOG/acknowledged: cannot keep what was acknowledged: EIO
fdatasync: LOG/acknowledged: cannot keep what was acknowledged: EIO
)",
              commit_into(64 << 20));
}

TEST_F(FailingCommit, BeginsAFile)
{
    EXPECT_EQ(R"(
fdatasync: LOG/fw0001-00000002.log: cannot bring the log file to disk: EIO
open: LOG: cannot bring the log directory to disk: EIO
fsync: LOG: cannot bring the log directory to disk: EIO
unlink: LOG/new-log-file: cannot create a log file: EIO
open: LOG/new-log-file: cannot create a log file: EIO
fchmod: goes on
getrandom: goes on
lseek: LOG/fw0001-00000003.log: cannot create the log file: EIO
write: LOG/fw0001-00000003.log: cannot create the log file: EIO
fdatasync: LOG/fw0001-00000003.log: cannot bring the log file to disk: EIO
open: LOG/acknowledged: cannot keep what was acknowledged: EIO
lseek: LOG/acknowledged: cannot keep what was acknowledged: EIO
write: LOG/acknowledged: cannot keep what was acknowledged: EIO
fdatasync: LOG/acknowledged: cannot keep what was acknowledged: EIO
rename: LOG/fw0001-00000003.log: cannot create the log file: EIO
lseek: LOG/fw0001-00000003.log: cannot write to the log file: EIO
write: LOG/fw0001-00000003.log: cannot write to the log file: EIO
opendir: goes on
readdir: goes on
stat64: goes on
open: goes on
statvfs: goes on
)",
              commit_into(1));
}

// Some process has the lock, and who it is cannot be asked.
class HeldLock {
  public:
    explicit HeldLock(const std::string &path)
    {
        int ready[2];
        EXPECT_EQ(0, pipe(ready));
        pid = fork();
        if (pid == 0) {
            struct flock lock = {};
            lock.l_type = F_WRLCK;
            const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
            const bool held = fd >= 0 && fcntl(fd, F_SETLK, &lock) == 0;
            (void)!::write(ready[1], held ? "1" : "0", 1);
            for (;;)
                pause();
        }
        char answer = '0';
        EXPECT_EQ(1, ::read(ready[0], &answer, 1));
        EXPECT_EQ('1', answer);
        close(ready[0]);
        close(ready[1]);
    }
    ~HeldLock()
    {
        (void)kill(pid, SIGKILL);
        (void)waitpid(pid, nullptr, 0);
    }
    HeldLock(const HeldLock &) = delete;
    HeldLock &operator=(const HeldLock &) = delete;
    pid_t pid;
};

TEST_F(FailingWriter, TellsWhoHasTheLockIfThatIsKnown)
{
    fill();
    const HeldLock other(log + "/writer.lock");
    std::vector<std::string> told;
    strike_each([] {}, noted([&] { open(); }),
                [&](const blow_told &blow) {
                    EXPECT_EQ(-1, rc);
                    if (blow.call == "fcntl" || blow.call.empty())
                        told.push_back(err);
                },
                {BLOW_ERROR});
    const std::string lock = "fwutil: " + log + "/writer.lock: ";
    EXPECT_THAT(told, ElementsAre(lock + "cannot lock the log for writing: Input/output error\n",
                                  lock + "another writer has the log open; stop it first\n",
                                  lock + "another writer, process " + std::to_string(other.pid) +
                                      ", has the log open; stop it first\n"));
}

class FailingReader : public FailingWriter {
  protected:
    // Reads from a record on with each failure, and once more: nothing is left out, and what comes
    // twice was acknowledged by nobody.
    std::string read(const step &prepare, size_t from = 1, const char *start = nullptr)
    {
        run_outcome first;
        const auto operation = [&] {
            first = run(start);
            rc = first.result;
            err = first.err;
        };
        const auto look = [&] {
            const size_t n = from - 1 + first.records.size();
            ASSERT_LE(n, written.size());
            EXPECT_EQ(written_from(from, n), first.records);
            const run_outcome next = run(first.records.empty() ? start : nullptr);
            EXPECT_EQ(0, next.result) << next.err;
            const size_t left = next.records.size();
            ASSERT_LE(left, written.size());
            EXPECT_GE(n + left, written.size());
            EXPECT_EQ(written_from(written.size() - left + 1), next.records);
            if (rc == 0) {
                EXPECT_EQ(written.size(), n);
                EXPECT_EQ(0U, left);
            }
        };
        // That a status file takes a part of what is written means a full disk.
        return failures(prepare, operation, look, false);
    }
    // A run that ended before a record.
    void read_up_to(int32_t number)
    {
        on_record = [number](const seen &record) { return record.recnum == number ? 1 : 0; };
        (void)run();
        on_record = nullptr;
    }
};

TEST_F(FailingReader, Begins)
{
    EXPECT_EQ(R"(
open: DIR/fwutil.cfg: cannot open the configuration file: EIO; name it with the cfg argument or in FWUTIL_CFG
read: DIR/fwutil.cfg: cannot read the configuration file: EIO
realpath: LOG: cannot find the log directory: EIO; create it, or correct log-directory in DIR/fwutil.cfg
open: goes on
read: goes on
open: DIR/fwutil.status: cannot open the status file: EIO
readlink: goes on
lstat64: goes on
fcntl: DIR/fwutil.status: cannot lock the status file: EIO
stat64: goes on
fstat64: goes on
ftruncate64: DIR/fwutil.status: cannot cut the status file to its length: EIO
pwrite64: DIR/fwutil.status: cannot write to the status file: EIO
mmap: goes on
fdatasync: DIR/fwutil.status: cannot bring the status file to disk: EIO
rename: DIR/fwutil.status: cannot name the status file: EIO
open: DIR/fwutil.status: cannot bring the status file's directory to disk: EIO
fsync: DIR/fwutil.status: cannot bring the status file's directory to disk: EIO
opendir: goes on LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: goes on LOG: cannot read the log directory: EIO
stat64: DIR/fwutil.status: cannot read the status file: EIO
fstat64: DIR/fwutil.status: cannot read the status file: EIO
pread64: DIR/fwutil.status: cannot read the status file: EIO
lseek: goes on DIR/fwutil.status: the status file was cut or changed while in use: written anew
opendir: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: LOG: cannot read the log directory: EIO
open: LOG/fw0001-00000001.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000001.log: cannot read the log file: EIO
open: LOG/fw0001-00000002.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000002.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: goes on LOG/acknowledged: cannot read what was acknowledged: EIO
pread64: goes on LOG/acknowledged: cannot read what was acknowledged: EIO
fdatasync: LOG/fw0001-00000002.log: cannot bring the log file to disk: EIO
)",
              read([&] { fill(); }));
}

TEST_F(FailingReader, GoesOn)
{
    const auto prepare = [&] {
        fill();
        read_up_to(4);
    };
    EXPECT_EQ(R"(
open: DIR/fwutil.cfg: cannot open the configuration file: EIO; name it with the cfg argument or in FWUTIL_CFG
read: DIR/fwutil.cfg: cannot read the configuration file: EIO
realpath: LOG: cannot find the log directory: EIO; create it, or correct log-directory in DIR/fwutil.cfg
open: goes on
read: goes on
open: DIR/fwutil.status: cannot open the status file: EIO
fcntl: DIR/fwutil.status: cannot lock the status file: EIO
stat64: goes on
fstat64: goes on
pread64: DIR/fwutil.status: cannot read the status file: EIO
open: goes on DIR/fwutil.status: it cannot be told whether the system was started anew since: going on behind 1-1.5, the last position whose output is known to be on disk; the last one of all was 1-1.5
read: goes on DIR/fwutil.status: it cannot be told whether the system was started anew since: going on behind 1-1.5, the last position whose output is known to be on disk; the last one of all was 1-1.5
opendir: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: LOG: cannot read the log directory: EIO
open: LOG/fw0001-00000001.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000001.log: cannot read the log file: EIO
stat64: DIR/fwutil.status: cannot read the status file: EIO
fstat64: DIR/fwutil.status: cannot read the status file: EIO
mmap: goes on
pwrite64: DIR/fwutil.status: cannot write to the status file: EIO
fdatasync: DIR/fwutil.status: cannot bring the status file to disk: EIO
open: LOG/fw0001-00000002.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000002.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: goes on LOG/acknowledged: cannot read what was acknowledged: EIO
pread64: goes on LOG/acknowledged: cannot read what was acknowledged: EIO
fdatasync: LOG/fw0001-00000002.log: cannot bring the log file to disk: EIO
lseek: goes on DIR/fwutil.status: the status file was cut or changed while in use: written anew
)",
              read(prepare, 4));
}

TEST_F(FailingReader, BeginsWhereItIsTold)
{
    const auto prepare = [&] {
        fill();
        read_up_to(2);
    };
    EXPECT_EQ(R"(
open: DIR/fwutil.cfg: cannot open the configuration file: EIO; name it with the cfg argument or in FWUTIL_CFG
read: DIR/fwutil.cfg: cannot read the configuration file: EIO
realpath: LOG: cannot find the log directory: EIO; create it, or correct log-directory in DIR/fwutil.cfg
open: goes on
read: goes on
open: DIR/fwutil.status: cannot open the status file: EIO
fcntl: DIR/fwutil.status: cannot lock the status file: EIO
stat64: goes on
fstat64: goes on
pread64: DIR/fwutil.status: cannot read the status file: EIO
opendir: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: LOG: cannot read the log directory: EIO
open: LOG/fw0001-00000002.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000002.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000002.log: cannot read the log file: EIO
fdatasync: LOG/fw0001-00000002.log: cannot bring the log file to disk: EIO
stat64: DIR/fwutil.status: cannot read the status file: EIO
fstat64: DIR/fwutil.status: cannot read the status file: EIO
pwrite64: DIR/fwutil.status: cannot write to the status file: EIO
ftruncate64: DIR/fwutil.status: cannot cut the status file to its length: EIO
mmap: goes on
fdatasync: DIR/fwutil.status: cannot bring the status file to disk: EIO
open: goes on LOG/acknowledged: cannot read what was acknowledged: EIO
pread64: goes on LOG/acknowledged: cannot read what was acknowledged: EIO
lseek: goes on DIR/fwutil.status: the status file was cut or changed while in use: written anew
)",
              read(prepare, 4, "2"));
}

TEST_F(FailingReader, SaysWhereItStands)
{
    std::string said;
    std::string whole;
    const auto prepare = [&] {
        fill();
        read_up_to(4);
    };
    const auto operation = [&] {
        testing::internal::CaptureStdout();
        rc = Fwu_status(status.c_str(), 1);
        said = testing::internal::GetCapturedStdout();
    };
    prepare();
    operation();
    whole = said;
    const auto look = [&] { EXPECT_TRUE(rc != 0 || said.size() + 200 > whole.size()) << said; };
    EXPECT_EQ(R"(
open: DIR/fwutil.status: cannot open the status file: EIO
pread64: DIR/fwutil.status: cannot read the status file: EIO
open: goes on
read: goes on
opendir: LOG: cannot open the log directory: EIO; check log-directory in the configuration file
readdir: LOG: cannot read the log directory: EIO
stat64: goes on
open: LOG/fw0001-00000001.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000001.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000001.log: cannot read the log file: EIO
open: LOG/fw0001-00000002.log: cannot open the log file: EIO
fstat64: LOG/fw0001-00000002.log: cannot read the log file: EIO
pread64: LOG/fw0001-00000002.log: cannot read the log file: EIO
open: goes on LOG/acknowledged: cannot read what was acknowledged: EIO
fstat64: goes on
pread64: goes on LOG/acknowledged: cannot read what was acknowledged: EIO
)",
              failures(prepare, noted(operation), look));
}

// Random bytes where the kernel has no call for them.
TEST_F(FailingWriter, TakesRandomBytesFromTheDevice)
{
    fwu_identity identity;
    const auto take = [&] { rc = fwu_random(identity.bytes, sizeof identity.bytes); };
    const auto look = [&] { EXPECT_TRUE(rc != 0 || fwu_identity_known(identity)); };
    no_getrandom = true;
    const std::string told = failures([&] { identity = {}; }, noted(take), look);
    no_getrandom = false;
    EXPECT_EQ(R"(
open: /dev/urandom: cannot get random bytes: EIO; a log file cannot be made without
read: /dev/urandom: cannot get random bytes: EIO; a log file cannot be made without
)",
              told);
}
