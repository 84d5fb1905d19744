// Small logs of several files, and status files of runs that read them: for what removes log files.
#ifndef TESTS_TOOLS_FWLOG_PRUNED_LOG_H
#define TESTS_TOOLS_FWLOG_PRUNED_LOG_H

#include "fwutil/fwu_log.h"
#include "fwutil/fwu_status_text.h"
#include "tests/procs/growing_log.h"

#include <gtest/gtest.h>

class PrunedLogTest : public testing::Test {
  protected:
    const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";
    const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";
    PrunedLogTest()
    {
        write_config(dir, "64M");
    }
    // One transaction of three inserts in each file, which has 480 bytes: its header of 64, a
    // layout of 96, three inserts of 88 and a commit of 56.
    void make(int files)
    {
        fwu_config config;
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        config.log_file_size = 1;
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        for (int n = 0; n < files; n++)
            ASSERT_TRUE(append_transaction(writer, 1 + 3 * n, 3));
        ASSERT_EQ(fwu_writer_close(writer), 0);
    }
    run_result run(const std::vector<std::string> &words)
    {
        run_setup options;
        options.directory = dir.path();
        return run_program(words, options);
    }
    std::string file(int n, int generation = 1) const
    {
        return dir.file("log/" + fwu_log_file_name(generation, n));
    }
    // The numbers of the files that there are, as "2-1 2-2 ".
    std::string left() const
    {
        std::vector<fwu_log_file> files;
        EXPECT_EQ(fwu_log_list(dir.file("log"), files), 0);
        std::string text;
        for (const fwu_log_file &f : files)
            text += std::to_string(f.generation) + "-" + std::to_string(f.sequence) + " ";
        return text;
    }
    // The place of a record in the log; of a file that there is not, one that could be.
    fwu_place place_of(const fwu_position &position) const
    {
        fwu_place place;
        if (position.sequence == 0)
            return place;
        place = {position, 1700000000000000, true, 1, {}};
        fwu_cursor cursor;
        const fwu_log_file file = {position.generation, position.sequence, "",
                                   this->file(position.sequence, position.generation)};
        if (fwu_cursor_try_open(cursor, file) == 0 && fwu_cursor_next(cursor) == FWU_FOUND) {
            place.lsn = cursor.commit.commit.lsn;
            place.identity = cursor.header.identity;
        }
        fwu_cursor_close(cursor);
        return place;
    }
    // A status file of this log, or of another one, whose position is on disk, or that
    // of a run which never forces it.
    void status(const std::string &name, const fwu_position &position,
                const std::string &directory = "", const std::string &boot = "1")
    {
        two_places(name, position, position, directory, boot);
    }
    void two_places(const std::string &name, const fwu_position &live, const fwu_position &synced,
                    const std::string &directory = "", const std::string &boot = "1")
    {
        write_file(dir.file(name),
                   fwu_status_put(directory.empty() ? real(dir.file("log")) : directory,
                                  place_of(live), fwu_synced_put({place_of(synced), boot, ""})));
    }
    static std::string real(const std::string &path)
    {
        return std::filesystem::canonical(path).string();
    }
    tempdir dir;
};

#endif
