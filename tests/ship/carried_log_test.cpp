// A log taken apart into messages and put together again, without a server between: stopped
// anywhere, with messages that come again, are missing, or are of something else.
#include "fwutil/fwu_cursor.h"
#include "fwutil/fwutil.h"
#include "ship/log_source.h"
#include "ship/log_target.h"
#include "tests/changes/written_log.h"

#include <gmock/gmock.h>
#include <random>

using ::testing::HasSubstr;

namespace {
struct kept_message {
    ship_place place;
    std::string dbname, dsetname, data;
};

class CarriedLog : public ::testing::Test {
  protected:
    void SetUp() override
    {
        far_config.log_directory = far.file("log");
    }
    void TearDown() override
    {
        ship_target_close(target);
    }

    // Transactions of all that there is: sessions, marks, values of several entries, new files.
    void write(std::mt19937 &random, int transactions)
    {
        for (int t = 0; t < transactions; t++) {
            if (random() % 8 == 0)
                near.new_file();
            fwu_session session;
            session.user = "ann";
            near.begin(random() % 2 == 0 ? &session : nullptr);
            const auto changes = 1 + random() % 5;
            for (uint64_t i = 0; i < changes; i++) {
                fwu_layout &layout = random() % 2 == 0 ? orders : people;
                const std::string image = le(random(), 4) + std::string(8, 'x');
                const std::string text(random() % 4 == 0 ? random() % 1'500'000 : 3, 'v');
                const fwu_value value = {.item = 1, .image = FWU_IMAGE_AFTER, .text = text};
                if (random() % 5 == 0)
                    near.mark({.kind = FWU_MARK_TRUNCATE, .schema = "s", .table = "t"});
                else if (random() % 3 == 0)
                    near.change(FWU_OP_UPDATE, layout, image, image, {&value, 1});
                else
                    near.insert(layout, image);
                if (random() % 10 == 0) {
                    session.user = "bob";
                    ASSERT_EQ(fwu_writer_session(near.writer, session), 0);
                }
            }
            near.commit();
        }
    }

    // All messages behind a place.
    std::vector<kept_message> messages(const ship_place &behind = {}, size_t most = 100'000,
                                       size_t count = SIZE_MAX)
    {
        std::vector<kept_message> all;
        ship_log_source source;
        error = ship_log_open(source, near.log, behind, most);
        while (error && all.size() < count) {
            ship_message message;
            bool found = false;
            error = ship_log_next(source, message, found);
            if (!error || !found)
                break;
            EXPECT_LE(message.length, most);
            all.push_back({message.place,
                           std::string(message.dbname),
                           std::string(message.dsetname),
                           {reinterpret_cast<const char *>(message.data), message.length}});
        }
        ship_log_close(source);
        return all;
    }

    void open()
    {
        ship_target_close(target);
        ASSERT_TRUE(ship_target_open(target, far_config));
    }
    ship_taken take(const kept_message &message)
    {
        ship_taken taken = SHIP_MISSING;
        error = ship_target_take(taken, target, message.place,
                                 reinterpret_cast<const unsigned char *>(message.data.data()),
                                 message.data.size());
        return taken;
    }

    void expect_same() const
    {
        size_t files = 0;
        for (const auto &file : std::filesystem::directory_iterator(near.log)) {
            const std::string name = file.path().filename();
            if (!name.starts_with("fw"))
                continue;
            files++;
            EXPECT_TRUE(read_file(file.path()) == read_file(far_config.log_directory + "/" + name))
                << name;
        }
        EXPECT_GT(files, 0U);
    }

    fwu_layout orders = {.dbname = "SALES",
                         .dsetname = "ORDERS",
                         .items = {{"NO", 'I', 4, 1, 0}, {"TEXT", 'X', 8, 1, 0}}};
    fwu_layout people = {.dbname = "SALES",
                         .dsetname = "PEOPLE",
                         .items = {{"ID", 'I', 4, 1, 0}, {"NAME", 'X', 8, 1, 0}}};
    written_log near;
    tempdir far;
    fwu_config far_config;
    ship_log_target target;
    outcome error;
};
} // namespace

TEST_F(CarriedLog, IsTheSameLog)
{
    std::mt19937 random(1);
    write(random, 40);
    open();
    for (const kept_message &message : messages()) {
        const ship_taken taken = take(message);
        ASSERT_TRUE(error) << error.text();
        EXPECT_EQ(taken, message.place.to == message.place.end ? SHIP_WHOLE : SHIP_TAKEN);
    }
    expect_same();
}

TEST_F(CarriedLog, AMessageIsAChangeWithItsDataset)
{
    near.begin();
    near.insert(orders, le(1, 4) + "12345678");
    near.insert(people, le(2, 4) + "12345678");
    near.mark({.kind = FWU_MARK_TRUNCATE,
               .dbname = "SALES",
               .dsetname = "ORDERS",
               .schema = "s",
               .table = "t"});
    near.commit();
    const std::vector<kept_message> all = messages();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].dsetname, "ORDERS");
    EXPECT_EQ(all[1].dsetname, "PEOPLE");
    EXPECT_EQ(all[2].dsetname, "ORDERS");
    EXPECT_EQ(all[0].dbname, "SALES");
    EXPECT_EQ(all[0].place.from, 0);
    EXPECT_EQ(all[1].place.from, all[0].place.to);
    EXPECT_EQ(all[2].place.to, all[2].place.end);
    EXPECT_EQ(all[2].place.commit.lsn, 16U);
}

// The stream may end behind any message, and the far log behind any transaction.
TEST_F(CarriedLog, GoesOnBehindAnyMessage)
{
    for (uint32_t seed = 1; seed <= 3; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        write(random, 10);
        const size_t most = 5000 + random() % 200'000;
        const std::vector<kept_message> all = messages({}, most);
        std::vector<kept_message> sent;
        while (true) {
            const auto more =
                messages(sent.empty() ? ship_place() : sent.back().place, most, 1 + random() % 40);
            ASSERT_TRUE(error) << error.text();
            if (more.empty())
                break;
            sent.insert(sent.end(), more.begin(), more.end());
        }
        ASSERT_EQ(sent.size(), all.size());
        for (size_t i = 0; i < all.size(); i++) {
            std::string a, b;
            ship_id_put(a, all[i].place);
            ship_id_put(b, sent[i].place);
            ASSERT_EQ(a, b);
            ASSERT_TRUE(all[i].data == sent[i].data) << i;
        }
        open();
        size_t whole = 0; // messages up to the last transaction that is in the log
        for (size_t i = 0; i < all.size();) {
            const ship_taken taken = take(all[i]);
            ASSERT_TRUE(error) << error.text();
            ASSERT_TRUE(taken == SHIP_TAKEN || taken == SHIP_WHOLE || taken == SHIP_HAS);
            i++;
            if (all[i - 1].place.to == all[i - 1].place.end)
                whole = std::max(whole, i);
            if (random() % 20 == 0) { // killed; some of what it has comes again
                open();
                i = whole - std::min<size_t>(whole, random() % 10);
            }
        }
        expect_same();
    }
}

TEST_F(CarriedLog, SeesWhatIsMissing)
{
    std::mt19937 random(7);
    write(random, 20);
    const std::vector<kept_message> all = messages();
    for (size_t left_out = 0; left_out + 1 < all.size(); left_out += 1 + all.size() / 30) {
        ship_target_close(target);
        std::filesystem::remove_all(far_config.log_directory);
        open();
        for (size_t i = 0; i < left_out; i++)
            take(all[i]);
        const ship_taken taken = take(all[left_out + 1]);
        if (left_out == 0 && all[1].place.from == 0)
            continue; // a log may begin with any file
        ASSERT_TRUE(error) << error.text();
        EXPECT_EQ(taken, SHIP_MISSING) << left_out;
        EXPECT_NE(take(all[left_out]), SHIP_MISSING) << left_out;
    }
}

TEST_F(CarriedLog, RefusesAnotherLog)
{
    std::mt19937 random(3);
    write(random, 3);
    const std::vector<kept_message> all = messages();
    open();
    for (const kept_message &message : all)
        take(message);
    kept_message other = all.back();
    other.place.log.bytes[0] ^= 1;
    take(other);
    EXPECT_EQ(error.kind(), OUTCOME_BAD);
    EXPECT_THAT(error.text(), HasSubstr("the stream is of log"));
    other = all.back();
    other.place.commit.lsn++; // the same place, another transaction
    take(other);
    EXPECT_EQ(error.kind(), OUTCOME_BAD);
    EXPECT_THAT(error.text(), HasSubstr("something else"));
}

TEST_F(CarriedLog, SeesThatSomebodyElseHasWrittenToTheFarLog)
{
    std::mt19937 random(4);
    near.begin();
    near.insert(orders, le(1, 4) + "12345678");
    near.commit();
    open();
    for (const kept_message &message : messages())
        take(message);
    ship_target_close(target);
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_writer_open(&writer, far_config), 0);
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    const std::string image = le(2, 4) + "abcdefgh";
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, orders, 1, 12, nullptr, image.data()), 0);
    ASSERT_EQ(fwu_writer_commit(writer, {5, 6, 100}), 0);
    ASSERT_EQ(fwu_writer_close(writer), 0);
    near.begin();
    near.insert(orders, le(2, 4) + "12345678");
    near.commit();
    open();
    for (const kept_message &message : messages()) {
        take(message);
        if (!error)
            break;
    }
    EXPECT_EQ(error.kind(), OUTCOME_BAD);
    EXPECT_THAT(error.text(), HasSubstr("something else"));
}

TEST_F(CarriedLog, DoesNotGoOnInALogThatWasCutBack)
{
    near.begin();
    near.insert(orders, le(1, 4) + "12345678");
    near.commit();
    const ship_place first = messages().back().place;
    near.begin();
    near.insert(orders, le(2, 4) + "12345678");
    near.commit();
    ship_place last = messages().back().place;
    EXPECT_EQ(messages(first).size(), 1U);
    EXPECT_EQ(messages(last).size(), 0U);
    EXPECT_TRUE(error);
    last.commit.time_us++;
    messages(last);
    EXPECT_EQ(error.kind(), OUTCOME_BAD);
    EXPECT_THAT(error.text(), HasSubstr("has other transactions"));
    last.to = last.end = last.end + 8;
    messages(last);
    EXPECT_EQ(error.kind(), OUTCOME_BAD);
    EXPECT_THAT(error.text(), HasSubstr("ends before"));
    last.file.sequence = 9;
    messages(last);
    EXPECT_THAT(error.text(), HasSubstr("does not have"));
    last = first;
    last.log.bytes[3] ^= 1;
    messages(last);
    EXPECT_THAT(error.text(), HasSubstr("it is another one"));
}
