// Random damage to random logs, repaired, against a list that knows only where transactions
// end in their files: the log that is left is all that stands before the first byte that
// differs, and a writer goes on with it.
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_repair.h"
#include "tests/procs/growing_log.h"
#include "tests/tools/fwlog/commit_lsns.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>

struct known_file {
    std::string path;
    std::string bytes;
    std::vector<std::pair<size_t, uint64_t>> ends; // behind each transaction; source positions
};

class RepairRandomTest : public testing::Test {
  protected:
    size_t below(size_t end)
    {
        return std::uniform_int_distribution<size_t>(0, end - 1)(random);
    }

    // Transactions of one to four records in files of about two each.
    void append(int transactions, bool acknowledged)
    {
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        for (int n = 0; n < transactions; n++, number += 4)
            ASSERT_TRUE(append_transaction(writer, number, 1 + static_cast<int>(below(4))));
        ASSERT_EQ(fwu_writer_sync(writer), 0);
        if (acknowledged) {
            ASSERT_EQ(fwu_writer_acknowledge(writer), 0);
        }
        ASSERT_EQ(fwu_writer_close(writer), 0);
    }

    std::vector<fwu_log_file> list() const
    {
        std::vector<fwu_log_file> files;
        EXPECT_EQ(fwu_log_list(config.log_directory, files), 0);
        return files;
    }

    std::vector<known_file> survey() const
    {
        std::vector<known_file> known;
        for (const fwu_log_file &file : list()) {
            known.push_back({file.path, read_file(file.path), {}});
            fwu_cursor cursor;
            EXPECT_EQ(fwu_cursor_open(cursor, file), 0);
            while (fwu_cursor_next(cursor) == FWU_FOUND)
                known.back().ends.emplace_back(static_cast<size_t>(cursor.tx_end),
                                               cursor.commit.commit.lsn);
            fwu_cursor_close(cursor);
        }
        return known;
    }

    void damage(const known_file &file)
    {
        if (!std::filesystem::exists(file.path))
            return;
        std::string bytes = read_file(file.path);
        const size_t at = below(bytes.size() + 1);
        switch (below(5)) {
        case 0:
            std::filesystem::remove(file.path);
            return;
        case 1: // a file that ends behind its header or another transaction looks whole
            if (at == FWU_FILE_HEADER_SIZE ||
                std::any_of(file.ends.begin(), file.ends.end(),
                            [at](const auto &end) { return at == end.first; }))
                return;
            bytes.resize(at);
            break;
        case 2:
            bytes += std::string(1 + below(100), static_cast<char>(below(256)));
            break;
        case 3: {
            const size_t from = std::min(at, bytes.size());
            const size_t length = std::min(bytes.size() - from, below(200));
            bytes.replace(from, length, length, '\0');
            break;
        }
        default:
            if (at < bytes.size())
                bytes[at] = static_cast<char>(bytes[at] ^ 1 << below(8));
        }
        write_file(file.path, bytes);
    }

    // What is whole before the first difference.  Files may go from the front: then the
    // log begins with the next one.
    static std::vector<uint64_t> expected(const std::vector<known_file> &known)
    {
        std::vector<uint64_t> commits;
        bool begun = false;
        for (const known_file &file : known) {
            const bool there = std::filesystem::exists(file.path);
            if (!there && !begun)
                continue;
            begun = true;
            const std::string bytes = there ? read_file(file.path) : "";
            const auto differs = static_cast<size_t>(
                std::mismatch(file.bytes.begin(), file.bytes.end(), bytes.begin(), bytes.end())
                    .first -
                file.bytes.begin());
            for (const auto &[end, lsn] : file.ends)
                if (end <= differs)
                    commits.push_back(lsn);
            if (bytes != file.bytes)
                break;
        }
        return commits;
    }

    tempdir dir;
    fwu_config config;
    std::mt19937 random;
    int number = 1;
};

TEST_F(RepairRandomTest, TheLogThatIsLeftIsAllBeforeTheFirstDifference)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    random.seed(seed);
    write_config(dir, "4K");
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    config.log_file_size = 481;
    int repaired = 0;
    for (int round = 0; round < 300 && !HasFailure(); round++) {
        std::filesystem::remove_all(config.log_directory);
        append(1 + static_cast<int>(below(8)), below(2) == 0);
        const std::vector<known_file> known = survey();
        if (below(3) == 0)
            std::filesystem::remove(config.log_directory + "/acknowledged");
        for (size_t n = 1 + below(3); n > 0; n--)
            damage(known[below(known.size())]);
        const std::vector<uint64_t> left = expected(known);

        testing::internal::CaptureStderr();
        fwu_repair repair;
        ASSERT_EQ(fwu_repair_open(repair, config, false), 0);
        if (repair.reason != nullptr) {
            repaired++;
            EXPECT_EQ(fwu_repair_carry_out(repair), 0);
        }
        fwu_repair_close(repair);
        EXPECT_EQ(commit_lsns(config.log_directory), left) << "round " << round;
        append(1, true);
        EXPECT_EQ(commit_lsns(config.log_directory).size(), left.size() + 1) << "round " << round;
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_FALSE(HasFailure()) << err;
    }
    EXPECT_GT(repaired, 100);
}
