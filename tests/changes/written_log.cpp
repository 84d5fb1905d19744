// Failures of the writer are the test's.
#include "tests/changes/written_log.h"

#include "fwutil/fwutil.h"

#include <gtest/gtest.h>

constexpr int64_t FIRST_TIME_US = 1'700'000'000'000'000;

written_log::written_log(const std::string &lines)
{
    write_file(cfg, "log-directory log\n" + lines);
    EXPECT_EQ(fwu_config_read(config, cfg.c_str()), 0);
    EXPECT_EQ(fwu_writer_open(&writer, config), 0);
}

written_log::~written_log()
{
    EXPECT_EQ(fwu_writer_close(writer), 0);
}

void written_log::begin(const fwu_session *session)
{
    ASSERT_EQ(fwu_writer_begin(writer, session), 0);
}

void written_log::change(int32_t opcode, const fwu_layout &layout, const std::string &before,
                         const std::string &after, std::span<const fwu_value> values)
{
    ASSERT_EQ(fwu_writer_record(writer, opcode, layout, 1'700'000'000,
                                static_cast<int32_t>(fwu_layout_image_length(layout)),
                                before.empty() ? nullptr : before.data(),
                                after.empty() ? nullptr : after.data(), values),
              0);
}

void written_log::insert(const fwu_layout &layout, const std::string &after)
{
    change(FWU_OP_INSERT, layout, "", after);
}

void written_log::mark(const fwu_mark &mark)
{
    ASSERT_EQ(fwu_writer_mark(writer, mark), 0);
}

void written_log::commit()
{
    const uint64_t n = ++commits;
    const auto seconds = static_cast<int64_t>(n);
    ASSERT_EQ(fwu_writer_commit(writer, {FIRST_TIME_US + 1'000'000 * seconds, 100 + n, 16 * n}), 0);
    if (file_due)
        reopen(config.log_file_size);
    file_due = false;
}

void written_log::reopen(int64_t log_file_size)
{
    fwu_config other = config;
    other.log_file_size = log_file_size;
    ASSERT_EQ(fwu_writer_close(writer), 0);
    ASSERT_EQ(fwu_writer_open(&writer, other), 0);
}

void written_log::new_file()
{
    reopen(1);
    file_due = true;
}

std::string le(uint64_t number, size_t bytes)
{
    std::string out;
    for (size_t i = 0; i < bytes; i++)
        out.push_back(static_cast<char>(number >> 8 * i & 0xFF));
    return out;
}
