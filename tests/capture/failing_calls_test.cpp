// Capture files that are cut, looked at and brought to disk, with each system call failing in
// turn: a failure is told, no byte of a record is lost, and the next attempt comes through.
#include "tests/support/failing_calls.h"

#include "capture/ebmf.h"
#include "capture/reopen.h"
#include "capture/settings.h"
#include "capture/sync.h"
#include "capture/syncmark.h"
#include "capture/textfile.h"
#include "msgfile/tmf.h"
#include "tests/support/core_state.h"
#include "tests/support/tempdir.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace fs = std::filesystem;

class FailingCalls : public core_state {
  protected:
    FailingCalls()
    {
        capture_sync_begin();
    }
    ~FailingCalls() override
    {
        g_capture_settings.text = TEXT_TRUNCATE;
        g_capture_settings.sync = SYNC_IDLE;
    }

    // A new directory's worth of nothing.
    void clear() const
    {
        for (const fs::directory_entry &entry : fs::directory_iterator(dir.path()))
            fs::remove(entry.path());
    }
    // The text file is as it was, or the piece that was cut off is whole beside it.
    void expect_kept(const std::string &kept, const std::string &rest) const
    {
        const std::string now = read_file(text);
        EXPECT_TRUE(now == kept + rest || (now == kept && read_file(text + ".cut") == rest));
    }
    void begin_anew()
    {
        (void)capture([] { capture_close(g_ci); });
        g_ci = new_capinfo();
        get_dsetinfo(g_ci->dsets);
        capture_sync_begin();
    }
    void write(int n) const
    {
        for (int i = 0; i < n; i++)
            ASSERT_EQ(0, capture_write_insert(g_ci, &record));
    }

    const tempdir dir;
    const std::string text = dir.file("cap");
    const std::string message = dir.file("msg");
    const log_record record = customer();
    int rc = 0;
    int error = 0;
    std::string told;
};

TEST_F(FailingCalls, ACutLosesNothing)
{
    const std::string kept = "a\n" + std::string(70000, 'b') + "\n";
    const std::string rest = std::string(70000, 'c') + "\nd";
    const auto prepare = [&] {
        clear();
        write_file(text, kept + rest);
        write_file(text + ".cut.part", "left by a run that was killed");
    };
    const auto cut = [&] {
        (void)capture([&] {
            rc = text_cut(text.c_str(), static_cast<int64_t>(kept.size()), "why");
            error = errno;
        });
    };
    const int blows = strike_each(prepare, cut, [&](const blow_told &blow) {
        EXPECT_EQ(blow.fatal() ? -1 : 0, rc);
        if (rc != 0) {
            EXPECT_EQ(EIO, error);
        }
        expect_kept(kept, rest);
        EXPECT_TRUE(rc != 0 || read_file(text) == kept);
    });
    EXPECT_GT(blows, 20);
}

TEST_F(FailingCalls, ZerosAreCutOrStay)
{
    const std::string kept = std::string(70000, 'b') + "\n";
    const std::string rest = "c" + std::string(10, '\0') + "\n";
    const auto prepare = [&] {
        clear();
        write_file(text, kept + rest);
    };
    const auto cut = [&] { (void)capture([&] { rc = text_cut_zeros(text.c_str()); }); };
    strike_each(prepare, cut, [&](const blow_told &blow) {
        EXPECT_EQ(blow.fatal() ? -1 : 0, rc);
        expect_kept(kept, rest);
        EXPECT_TRUE(rc != 0 || read_file(text) == kept);
    });
}

TEST_F(FailingCalls, AFileIsTakenUpOrRefused)
{
    for (const bool again : {false, true}) {
        g_capture_settings.text = TEXT_APPEND;
        int fd = -1;
        const auto prepare = [&] {
            clear();
            write_file(text, "a\ntorn");
        };
        const auto open_it = [&] {
            (void)capture([&] {
                fd = again ? textfile_reopen(text.c_str(), ASCII_ON)
                           : textfile_open(text.c_str(), ASCII_ON);
                error = errno;
            });
        };
        strike_each(prepare, open_it, [&](const blow_told &blow) {
            EXPECT_EQ(blow.fatal(), fd < 0);
            expect_kept("a\n", "torn");
            if (fd < 0) {
                EXPECT_EQ(EIO, error);
                return;
            }
            EXPECT_EQ(4, ::write(fd, "new\n", 4));
            EXPECT_EQ("a\nnew\n", read_file(text));
            EXPECT_EQ(0, close(fd));
        });
    }
}

TEST_F(FailingCalls, AnEmptyAndANewFileAreOpenedOrRefused)
{
    const struct {
        text_mode mode;
        const char *before; // null: none is there
    } cases[] = {{TEXT_APPEND, nullptr},
                 {TEXT_APPEND, ""},
                 {TEXT_TRUNCATE, nullptr},
                 {TEXT_TRUNCATE, "old"},
                 {TEXT_NEW, nullptr}};
    for (const auto &c : cases) {
        g_capture_settings.text = c.mode;
        ebmf *file = nullptr;
        const auto prepare = [&] {
            clear();
            if (c.before != nullptr)
                write_file(text, c.before);
        };
        strike_each(
            prepare, [&] { file = ebmf_fopen(text.c_str(), 0, ASCII_ON); },
            [&](const blow_told &blow) {
                EXPECT_EQ(blow.fatal(), file == nullptr);
                if (file == nullptr)
                    return;
                char bytes[] = "one##";
                EXPECT_EQ(0, ebmf_fwrite(file, bytes, 3));
                EXPECT_EQ(0, ebmf_fclose(file));
                EXPECT_EQ("one\n", read_file(text));
            });
    }
}

// A start behind a power cut, of a text and a message file, both in use and emptied since.
TEST_F(FailingCalls, AStartBehindAPowerCutComesThroughOrSaysWhyNot)
{
    for (const int records : {1, 3}) {
        std::string mark;
        std::string before;
        const auto prepare = [&] {
            begin_anew();
            clear();
            add_file(text, text_options());
            add_file(message);
            write(1);
            const char *lines = capture_sync(g_ci);
            ASSERT_NE(nullptr, lines);
            mark = lines;
            write(records - 1);
            begin_anew();
            before = read_file(text);
        };
        const auto resume = [&] { told = capture([&] { rc = capture_resume(mark.c_str()); }).err; };
        strike_each(prepare, resume, [&](const blow_told &blow) {
            EXPECT_EQ(blow.fatal() && blow.call != "unlink" ? -1 : rc, rc);
            EXPECT_EQ(rc != 0, told.find("CAPERR: ") != std::string::npos) << told;
            const size_t first = before.find('\n') + 1;
            expect_kept(before.substr(0, first), before.substr(first));
            // The next start comes through, and leaves the records before the mark.
            resume();
            EXPECT_EQ(0, rc) << told;
            EXPECT_EQ(before.substr(0, first), read_file(text));
            tmf_check_result found;
            EXPECT_EQ(0, tmf_check(message.c_str(), &found));
            EXPECT_EQ(1, found.records);
        });
    }
}

// Files are marked and brought to disk: an end that is not known is never told.
TEST_F(FailingCalls, AMarkIsWholeOrNone)
{
    std::string mark;
    bool failed = false;
    const auto prepare = [&] {
        begin_anew();
        clear();
        add_file(text, text_options());
        add_file(message);
        write(2);
        capture_sync_soon();
    };
    const auto sync = [&] {
        told = capture([&] {
                   const char *lines = capture_sync(g_ci);
                   failed = lines == nullptr;
                   mark = failed ? "" : lines;
               }).err;
    };
    const int blows = strike_each(prepare, sync, [&](const blow_told &blow) {
        // A message file's own look at its end may not come through a blow that reads half.
        EXPECT_TRUE(failed || !blow.fatal());
        EXPECT_EQ(failed, told.find("Error bringing capture file to disk") != std::string::npos);
        // The next one is whole, or there is none any more in this run.
        const std::string first = mark;
        sync();
        for (const std::string &lines : {first, mark}) {
            if (lines.empty())
                continue;
            EXPECT_NE(std::string::npos, lines.find(" 134 0000000000000000 " + text + "\n"));
            EXPECT_NE(std::string::npos, lines.find(" 4496 ")) << lines;
        }
        EXPECT_TRUE(!mark.empty() || !first.empty() || blow.kind == BLOW_ERROR);
    });
    EXPECT_GT(blows, 5);
}

// A file that was moved away would have its name back behind a power cut, and be taken for one
// that was begun behind a mark that says that none is there.
TEST_F(FailingCalls, ThatNoFileHasANameIsOnDiskOrNoMarkSaysSo)
{
    const struct {
        const char *before; // of each letter a mark: one when the file is there (f), or gone (g)
        int directories;    // brought to disk by the next one, when it is gone
    } cases[] = {{"", 1}, {"f", 1}, {"g", 0}, {"gg", 0}, {"gf", 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.before);
        const auto prepare = [&] {
            begin_anew();
            clear();
            add_file(text, text_options());
            for (const char *letter = c.before; *letter != '\0'; letter++) {
                fs::remove(text);
                if (*letter == 'f')
                    write_file(text, "a\n");
                ASSERT_NE(nullptr, capture_sync(g_ci));
            }
            fs::remove(text);
        };
        bool marked = false;
        const auto sync = [&] {
            told = capture([&] { marked = capture_sync(g_ci) != nullptr; }).err;
        };
        int directories = 0;
        strike_each(prepare, sync, [&](const blow_told &blow) {
            EXPECT_EQ(blow.fatal(), !marked);
            EXPECT_EQ(blow.fatal(), told.find("Error bringing capture file to disk: " + text) !=
                                        std::string::npos)
                << told;
            directories += blow.call == "fsync" ? 1 : 0;
        });
        EXPECT_EQ(c.directories, directories);
    }
}

// Files that no run has open, as a start finds them.
TEST_F(FailingCalls, WhatWasWrittenBeforeIsBroughtToDiskOrToldOf)
{
    std::string mark;
    begin_anew();
    add_file(text, text_options());
    add_file(message);
    write(2);
    mark = capture_sync(g_ci);
    begin_anew();
    strike_each([] {}, [&] { told = capture([&] { rc = capture_keep(mark.c_str()); }).err; },
                [&](const blow_told &blow) {
                    EXPECT_EQ(blow.fatal(), rc != 0);
                    EXPECT_EQ(blow.fatal(), told.find("Error bringing capture file to disk: ") !=
                                                std::string::npos)
                        << told;
                });
}

TEST_F(FailingCalls, AFileThatWasMovedIsOpenedAnewOrKept)
{
    const std::string moved = text + ".1";
    const auto prepare = [&] {
        begin_anew();
        clear();
        add_file(text, text_options());
        write(1);
        fs::rename(text, moved);
    };
    const auto reopen = [&] { told = capture([&] { rc = capture_reopen(g_ci); }).err; };
    strike_each(prepare, reopen, [&](const blow_told &blow) {
        if (!blow.fatal()) {
            EXPECT_EQ(1, rc);
        } else if (rc >= 0 && blow.call != "fstat64" && blow.call != "stat64") {
            EXPECT_NE(std::string::npos, told.find("CAPERR: ")) << told;
        }
        write(1);
        const std::string both = read_file(moved) + read_file(text);
        EXPECT_EQ(2, std::count(both.begin(), both.end(), '\n'));
        EXPECT_EQ(0, both.find("000000ORDERS"));
        EXPECT_NE(std::string::npos, both.find("\n000001ORDERS"));
    });
}
