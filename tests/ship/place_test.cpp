// Places of messages as text, there and back; what is none is refused.
#include "ship/place.h"
#include "ship/subject.h"

#include <gtest/gtest.h>

static ship_place a_place()
{
    ship_place place;
    for (unsigned char i = 0; i < 16; i++)
        place.log.bytes[i] = static_cast<unsigned char>(0x10 + i);
    place.file = {1, 25};
    place.from = 4096;
    place.to = 5120;
    place.begin = 4000;
    place.end = 6000;
    place.commit = {.time_us = 1'700'000'000'000'001, .xid = 7, .lsn = 0x16B3748};
    return place;
}

static const std::string ID = "101112131415161718191a1b1c1d1e1f.1-25.5120";
static const std::string TEXT = "1-25 4096 5120 4000 6000 1700000000000001 0/16B3748 7";

TEST(ShipPlace, IsWrittenAndRead)
{
    const ship_place place = a_place();
    std::string text;
    std::string id;
    ship_place_put(text, place);
    ship_id_put(id, place);
    EXPECT_EQ(text, TEXT);
    EXPECT_EQ(id, ID);
    ship_place read;
    ASSERT_TRUE(ship_place_get(read, text, id));
    EXPECT_EQ(read.log, place.log);
    EXPECT_EQ(read.file, place.file);
    EXPECT_EQ(read.from, 4096);
    EXPECT_EQ(read.to, 5120);
    EXPECT_EQ(read.begin, 4000);
    EXPECT_EQ(read.end, 6000);
    EXPECT_EQ(read.commit.time_us, 1'700'000'000'000'001);
    EXPECT_EQ(read.commit.lsn, 0x16B3748U);
    EXPECT_EQ(read.commit.xid, 7U);
    EXPECT_EQ(read.file_before.generation, 0);
    EXPECT_FALSE(read.has_commit_before);
}

TEST(ShipPlace, TellsWhatCameBefore)
{
    ship_place place = a_place();
    place.from = 0;
    place.begin = 64;
    place.file_before = {1, 24};
    place.size_before = 8888;
    std::string text;
    ship_place_put(text, place);
    EXPECT_EQ(text, "1-25 0 5120 64 6000 1700000000000001 0/16B3748 7 behind 1-24 8888");
    ship_place read;
    ASSERT_TRUE(ship_place_get(read, text, ID));
    EXPECT_EQ(read.file_before, (fwu_file_number{1, 24}));
    EXPECT_EQ(read.size_before, 8888);

    place = a_place();
    place.has_commit_before = true;
    place.commit_before = {.time_us = -5, .xid = 6, .lsn = 0x10};
    text.clear();
    ship_place_put(text, place);
    EXPECT_EQ(text, TEXT + " after -5 0/10 6");
    ASSERT_TRUE(ship_place_get(read, text, ID));
    EXPECT_TRUE(read.has_commit_before);
    EXPECT_EQ(read.commit_before.time_us, -5);
    EXPECT_EQ(read.commit_before.lsn, 0x10U);
    EXPECT_EQ(read.commit_before.xid, 6U);
}

TEST(ShipPlace, RefusesWhatIsNone)
{
    ship_place read;
    ASSERT_TRUE(ship_place_get(read, TEXT, ID));
    for (const char *text :
         {"", "1-25", "x-25 4096 5120 4000 6000 1 0/1 7", "0-25 4096 5120 4000 6000 1 0/1 7",
          "1-25 5120 5120 4000 6000 1 0/1 7", "1-25 4096 5120 4000 5119 1 0/1 7",
          "1-25 3999 5120 4000 6000 1 0/1 7", "1-25 4096 5120 0 6000 1 0/1 7",
          "1-25 -1 5120 4000 6000 1 0/1 7", "1-25 4096 5120 4000 6000 1 16B3748 7",
          "1-25 4096 5120 4000 6000 1 0/1 7 what", "1-25 4096 5120 4000 6000 1 0/1",
          "1-25 4096 5120 4000 6000 1 0/1 7 behind 1-24",
          "1-25 4096 99999999999999999999 4000 6000 1 0/1 7"})
        EXPECT_FALSE(ship_place_get(read, text, ID)) << text;
    for (const char *id :
         {"", "101112131415161718191a1b1c1d1e1f", "101112131415161718191a1b1c1d1e1f.1-25.5121",
          "101112131415161718191a1b1c1d1e1f.1-26.5120", "10.1-25.5120",
          "101112131415161718191a1b1c1d1e1f.1-25.05120"})
        EXPECT_FALSE(ship_place_get(read, TEXT, id)) << id;
}

TEST(ShipSubject, PartsAreNames)
{
    const struct {
        const char *dbname, *dsetname, *subject;
    } rows[] = {
        {"SALES", "ORDERS", ".SALES.ORDERS"}, {"SALES", "A.B", ".SALES.A%2EB"}, {"", "", ".%.%"},
        {"A*", "> %", ".A%2A.%3E%20%25"},     {"\xC4", "x", ".%C4.x"},
    };
    for (const auto &row : rows) {
        std::string subject;
        ship_subject_put(subject, row.dbname, row.dsetname);
        EXPECT_EQ(subject, row.subject);
    }
    for (const char *name : {"ORDERS", "orders-1", "a_b"})
        EXPECT_TRUE(ship_name_ok(name)) << name;
    for (const char *name : {"", "a.b", "a b", "*", ">", "a%", "a/b", "\xC4"})
        EXPECT_FALSE(ship_name_ok(name)) << name;
}
