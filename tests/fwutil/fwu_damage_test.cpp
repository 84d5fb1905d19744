// Random logs, random damage to their files, several kinds at once, against a list
// that knows only where each transaction stands and up to which of them the log was
// acknowledged.
#include "fwutil/fwu_log.h"
#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"
#include "tests/support/run.h"

#include <cstdlib>
#include <iostream>
#include <map>
#include <random>

// Rounds of each seed: KESTRO_DAMAGE_ROUNDS, for the long form.
static unsigned rounds()
{
    const char *text = getenv("KESTRO_DAMAGE_ROUNDS");
    const int given = text != nullptr ? atoi(text) : 0;
    return given > 0 ? static_cast<unsigned>(given) : 100;
}

struct known_transaction {
    int32_t file = 0;
    size_t start = 0, end = 0; // offsets in it
    size_t records = 0;        // of the log up to and with this transaction
};

using known_files = std::map<int32_t, std::string>; // by sequence

class DamageTest : public log_test, public testing::WithParamInterface<unsigned> {
  protected:
    unsigned below(size_t n)
    {
        return static_cast<unsigned>(random() % n);
    }

    known_files files_now() const
    {
        known_files files;
        for (int32_t i = 1; i <= newest; i++)
            if (std::filesystem::exists(file(i)))
                files[i] = log_file_bytes(i);
        return files;
    }

    void put_files(const known_files &files) const
    {
        for (int32_t i = 1; i <= newest; i++) {
            std::filesystem::remove(file(i));
            if (const auto found = files.find(i); found != files.end())
                write_file(file(i), found->second);
        }
    }

    // Nothing of the log.
    void begin_anew()
    {
        std::filesystem::remove_all(log);
        known.clear();
        written.clear();
        newest = 0;
        acknowledged = 0;
    }

    void append_one();
    void append_some();
    std::string damage(known_files &files);
    void one_round();
    void read_and_check(const known_files &files);
    void write_and_check(const known_files &files);

    // How many transactions stand whole before the first place that is not as it was.
    size_t whole_in(const known_files &files) const
    {
        size_t n = 0;
        for (const known_transaction &t : known) {
            const auto found = files.find(t.file);
            if (found == files.end())
                break;
            const std::string &now = found->second;
            const std::string &was = before.at(t.file);
            if (now.compare(0, 64, was, 0, 64) != 0 || now.size() < t.end ||
                now.compare(t.start, t.end - t.start, was, t.start, t.end - t.start) != 0)
                break;
            n++;
        }
        return n;
    }

    std::mt19937 random;
    std::vector<known_transaction> known;
    size_t acknowledged = 0; // transactions
    size_t synced = 0;
    int32_t newest = 0; // log file
    known_files before; // the damage
    size_t whole = 0;   // transactions behind it
};

void DamageTest::append_one()
{
    std::vector<seen> changes;
    for (unsigned n = 1 + below(below(4) == 0 ? 60 : 8); n > 0; n--)
        changes.push_back(insert(static_cast<int32_t>(below(100000))));
    const size_t start = newest > 0 ? log_file_bytes(newest).size() : 0;
    ASSERT_NO_FATAL_FAILURE(add(changes));
    known_transaction t{newest, start, 0, written.size()};
    if (std::filesystem::exists(file(newest + 1))) {
        t.file = ++newest;
        t.start = 64;
        acknowledged = synced = known.size(); // the file before is, once another one is begun
    }
    t.end = log_file_bytes(newest).size();
    known.push_back(t);
}

void DamageTest::append_some()
{
    config.log_file_size = 3000 + below(20000);
    config.sync = below(2) == 0 ? FWU_SYNC_NONE : FWU_SYNC_COMMIT;
    stderr_of([&] { open_writer(); });
    ASSERT_NE(writer, nullptr);
    synced = acknowledged;
    for (unsigned n = below(12); n > 0; n--) {
        ASSERT_NO_FATAL_FAILURE(append_one());
        if (below(4) == 0) {
            ASSERT_EQ(fwu_writer_sync(writer), 0);
            synced = known.size();
        }
        if (below(4) == 0) {
            ASSERT_EQ(fwu_writer_acknowledge(writer), 0);
            acknowledged = config.sync == FWU_SYNC_NONE ? known.size() : synced;
        }
    }
    close_writer();
}

// Does something to the files; what, in words.
std::string DamageTest::damage(known_files &files)
{
    if (files.empty())
        return "nothing to damage";
    auto chosen = below(3) == 0 ? std::next(files.begin(), below(files.size()))
                                : std::prev(files.end()); // mostly the last one
    std::string &bytes = chosen->second;
    const std::string name = "file " + std::to_string(chosen->first);
    const bool last = chosen == std::prev(files.end());
    const size_t at = bytes.empty() ? 0 : below(bytes.size());
    switch (below(6)) {
    case 0:
        if (!bytes.empty())
            bytes[at] = static_cast<char>(bytes[at] ^ 1 << below(8));
        return name + ": bit at " + std::to_string(at);
    case 1:
        bytes.resize(at);
        return name + ": cut to " + std::to_string(at);
    case 2: {
        const size_t page = at / 4096 * 4096;
        for (size_t i = page; i < std::min(page + 4096, bytes.size()); i++)
            bytes[i] = '\0';
        return name + ": page of zeros at " + std::to_string(page);
    }
    case 3: // a copy made at an earlier time
        if (!last)
            return name + ": nothing";
        for (size_t n = below(known.size() + 1); n < known.size(); n++)
            if (known[n].file == chosen->first && bytes.size() > known[n].end) {
                bytes.resize(known[n].end);
                return name + ": as it was at " + std::to_string(known[n].end);
            }
        return name + ": the newest copy";
    case 4:
        if (!last)
            return name + ": nothing";
        files.erase(chosen);
        return name + ": gone";
    default:
        if (last)
            bytes += std::string(below(5000), static_cast<char>(below(2) * 0x55));
        return name + ": more behind it";
    }
}

// A reader gives the whole transactions before the damage, nothing else, each once.
void DamageTest::read_and_check(const known_files &files)
{
    std::filesystem::remove(status);
    const run_outcome outcome = run();
    const size_t records = whole == 0 ? 0 : known[whole - 1].records;
    ASSERT_EQ(outcome.records.size(), records);
    ASSERT_TRUE(outcome.records == written_from(1, records));
    const bool all_files = files.size() == before.size();
    if (whole >= acknowledged) {
        ASSERT_EQ(outcome.result, 0) << outcome.err;
    } else if (all_files) {
        ASSERT_EQ(outcome.result, -1);
        ASSERT_NE(outcome.err, "");
    }
}

// Whether all that can be told of the bytes behind end is that they stood there: an entry that is
// not whole shows what is wrong with its payload as little as one whose header is not whole.
static bool only_begun(const std::string &was, size_t end, const std::string &before)
{
    const auto same = [&](size_t at, size_t length) {
        return at + length <= before.size() && was.compare(at, length, before, at, length) == 0;
    };
    if (was.size() < FWU_FILE_HEADER_SIZE)
        return true;
    size_t at = std::max(end, FWU_FILE_HEADER_SIZE);
    while (was.size() - at >= FWU_ENTRY_HEADER_SIZE) {
        constexpr size_t checked = FWU_ENTRY_CRC_AT + 4;
        const size_t length =
            fwu_entry_padded(get_le32(reinterpret_cast<const unsigned char *>(was.data()) + at));
        if (was.size() - at < length)
            return same(at, checked);
        if (!same(at, length))
            return false;
        at += length;
    }
    return true;
}

// A writer refuses what lacks something acknowledged and leaves it alone; else it goes
// on behind the last whole transaction and keeps what it cuts off.
void DamageTest::write_and_check(const known_files &files)
{
    const int32_t last = files.empty() ? 0 : files.rbegin()->first;
    fwu_writer *next = nullptr;
    int result = 0;
    const std::string err = stderr_of([&] { result = fwu_writer_open(&next, config); });
    (void)fwu_writer_close(next);
    if (whole < acknowledged) {
        // Older files than the last two are not looked at.
        if (known[whole].file >= last - 1) {
            ASSERT_EQ(result, -1) << "opened without what was acknowledged";
        }
        if (result != 0) {
            ASSERT_NE(err, "");
            ASSERT_TRUE(files_now() == files) << "changed, though refused: " << err;
        }
        put_files(before);
        return;
    }
    ASSERT_EQ(result, 0) << err;
    known.resize(whole);
    written.resize(whole == 0 ? 0 : known.back().records);
    newest = last;
    if (last == 0)
        return;
    const known_files now = files_now();
    for (const auto &[sequence, bytes] : now) {
        if (sequence != last) {
            ASSERT_TRUE(bytes == before.at(sequence)) << sequence;
        }
    }
    const std::string &was = files.at(last);
    const bool good_header = was.size() >= 64 && was.compare(0, 64, before.at(last), 0, 64) == 0;
    const size_t end = whole > 0 && known.back().file == last ? known.back().end
                       : good_header                          ? 64
                                                              : 0;
    ASSERT_EQ(now.at(last).size(), std::max<size_t>(end, 64));
    ASSERT_TRUE(now.at(last).compare(0, end, before.at(last), 0, end) == 0);
    // The good beginning of a transaction, or of a file, and nothing else, is not kept.
    const bool unfinished =
        err.find(": the rest of a transaction that was not finished\n") != err.npos;
    if (unfinished) {
        ASSERT_TRUE(was.size() > end && only_begun(was, end, before.at(last))) << err;
    } else if (was.size() > end) {
        const std::string piece =
            log + "/cut-" + fwu_log_file_name(1, last) + "-" + std::to_string(end);
        ASSERT_TRUE(read_file(piece) == was.substr(end)) << piece;
        ASSERT_NE(err.find("; kept in cut-"), std::string::npos) << err;
    }
}

void DamageTest::one_round()
{
    if (known.size() > 80 || below(20) == 0)
        begin_anew();
    ASSERT_NO_FATAL_FAILURE(append_some());
    before = files_now();
    known_files files = before;
    std::string done;
    for (unsigned n = below(4); n > 0; n--)
        done += "; " + damage(files);
    SCOPED_TRACE(std::to_string(known.size()) + " transactions, " + std::to_string(acknowledged) +
                 " acknowledged" + done);
    put_files(files);
    whole = whole_in(files);
    ASSERT_NO_FATAL_FAILURE(read_and_check(files));
    if (below(8) == 0 && std::filesystem::exists(log)) {
        const run_result verify =
            run_program({KESTRO_BUILD_DIR "/bin/fwlog", "verify", "-cfg", cfg});
        ASSERT_EQ(verify.status, whole < acknowledged ? 1 : 0) << verify.out << verify.err;
    }
    ASSERT_NO_FATAL_FAILURE(write_and_check(files));
}

TEST_P(DamageTest, NothingAcknowledgedIsMissingInSilenceAndNothingWholeIsLost)
{
    const system_calls_guard guard;
    calls.skip_pauses = true;
    calls.skip_syncs = true;
    const char *again = getenv("KESTRO_TEST_SEED");
    const unsigned seed = GetParam() != 0    ? GetParam()
                          : again != nullptr ? static_cast<unsigned>(strtoul(again, nullptr, 10))
                                             : std::random_device()();
    std::cout << "seed " << seed << "\n";
    random.seed(seed);
    for (unsigned round = 0; round < rounds(); round++) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
        ASSERT_NO_FATAL_FAILURE(one_round());
    }
}

// 0: a seed of its own in each run, or that of the environment.
INSTANTIATE_TEST_SUITE_P(Seeds, DamageTest, testing::Values(1U, 2U, 3U, 0U));
