// The log under test and its model.
#include "tests/fwutil/log_fixture.h"

#include "fwutil/fwu_cursor.h"

#include <cstring>

static std::vector<seen> *collected = nullptr;
static const std::function<int(const seen &)> *observer = nullptr;

std::ostream &operator<<(std::ostream &out, const seen &r)
{
    return out << r.recnum << ": op " << r.opcode << " " << r.dbname << "." << r.dsetname << " at "
               << r.logtime << " [" << testing::PrintToString(r.before) << ", "
               << testing::PrintToString(r.after) << "]";
}

log_test::log_test()
{
    configure("log-file-size 64M\n"
              "byte-order little\n"
              "database SALES\n"
              "dataset ORDERS\n"
              "item NO I 4\n"
              "item TEXT X 12\n"
              "dataset PARTS\n"
              "item ID I 2\n"
              "item PRICE P 5 scale=2\n");
}

log_test::~log_test()
{
    (void)fwu_writer_close(writer); // closed by the test where that matters
}

void log_test::configure(const std::string &lines)
{
    write_file(cfg, "log-directory log\n" + lines);
    EXPECT_EQ(fwu_config_read(config, cfg.c_str()), 0);
}

void log_test::open_writer()
{
    ASSERT_EQ(fwu_writer_open(&writer, config), 0);
}

void log_test::close_writer()
{
    EXPECT_EQ(fwu_writer_close(writer), 0);
    writer = nullptr;
}

static std::string image(int32_t number, char letter)
{
    std::string bytes(16, letter);
    for (size_t i = 0; i < 4; i++)
        bytes[i] = static_cast<char>(number >> 8 * i);
    return bytes;
}

// The time of the record of a number, which may be any.
static int32_t logtime(int32_t number)
{
    return static_cast<int32_t>(1000 + static_cast<uint32_t>(number));
}

seen log_test::insert(int32_t number) const
{
    return {"SALES", "ORDERS", logtime(number), FWU_OP_INSERT, 0, "", image(number, 'i')};
}

seen log_test::update(int32_t number) const
{
    return {"SALES", "ORDERS",           logtime(number),   FWU_OP_UPDATE,
            0,       image(number, 'i'), image(number, 'u')};
}

seen log_test::erase(int32_t number) const
{
    return {"SALES", "ORDERS", logtime(number), FWU_OP_DELETE, 0, image(number, 'u'), ""};
}

int log_test::put(const seen &c, size_t dataset)
{
    const size_t length = c.opcode == FWU_OP_INSERT ? c.after.size() : c.before.size();
    return fwu_writer_record(writer, c.opcode, config.datasets[dataset].layout, c.logtime,
                             static_cast<int32_t>(length),
                             c.opcode == FWU_OP_INSERT ? nullptr : c.before.data(),
                             c.opcode == FWU_OP_DELETE ? nullptr : c.after.data());
}

int log_test::commit()
{
    commits++;
    return fwu_writer_commit(writer, {static_cast<int64_t>(1700000000000000 + commits * 1000000),
                                      commits, commits * 16});
}

void log_test::add(std::vector<seen> changes, const fwu_session *session)
{
    ASSERT_EQ(fwu_writer_begin(writer, session), 0);
    for (seen &change : changes) {
        ASSERT_EQ(put(change), 0);
        change.recnum = static_cast<int32_t>(written.size() + 1);
        written.push_back(change);
    }
    ASSERT_EQ(commit(), 0);
}

void log_test::two_files()
{
    config.log_file_size = 400; // full after the second transaction
    open_writer();
    add({insert(1)});
    add({update(1), erase(1)});
    add({insert(2), insert(3)});
    close_writer();
    ASSERT_TRUE(std::filesystem::exists(file(2)));
    ASSERT_FALSE(std::filesystem::exists(file(3)));
}

static int collect(uint32_t reserved, const char *dbname, const char *dsetname, int32_t logtime,
                   int32_t opcode, int32_t recnum, int32_t reclen, const void *before,
                   const void *after)
{
    EXPECT_EQ(reserved, 0U);
    EXPECT_EQ(before == nullptr, opcode == FWU_OP_INSERT);
    EXPECT_EQ(after == nullptr, opcode == FWU_OP_DELETE);
    seen record{dbname, dsetname, logtime, opcode, recnum, "", ""};
    const auto length = static_cast<size_t>(reclen);
    if (before != nullptr)
        record.before.assign(static_cast<const char *>(before), length);
    if (after != nullptr)
        record.after.assign(static_cast<const char *>(after), length);
    const int result = *observer ? (*observer)(record) : 0;
    if (result == 0)
        collected->push_back(std::move(record));
    return result;
}

run_outcome log_test::run(const char *start)
{
    run_outcome outcome;
    collected = &outcome.records;
    observer = &on_record;
    Fwu_synconly(1);
    outcome.err = stderr_of(
        [&] { outcome.result = Fwu_process(collect, cfg.c_str(), status.c_str(), start); });
    return outcome;
}

std::string log_test::file(int32_t sequence, int32_t generation) const
{
    return log + "/" + fwu_log_file_name(generation, sequence);
}

std::string log_test::log_file_bytes(int32_t sequence) const
{
    return read_file(file(sequence));
}

std::vector<seen> log_test::written_from(size_t first, size_t last) const
{
    const size_t end = std::min(last, written.size());
    return {written.begin() + static_cast<ptrdiff_t>(first - 1),
            written.begin() + static_cast<ptrdiff_t>(end)};
}

std::string stderr_of(const std::function<void()> &statement)
{
    testing::internal::CaptureStderr();
    statement();
    return testing::internal::GetCapturedStderr();
}
