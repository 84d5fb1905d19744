// Dataset patterns: checking, the stored form, matching.
#include "capture/dsetpat.h"

#include "driver/base/logrec.h"
#include "tests/support/core_state.h"

#include <cctype>
#include <gtest/gtest.h>
#include <random>

static const char db_begin[] = "Database name must begin with letter in -dset paramter.";
static const char db_invalid[] = "Invalid character in database name in -dset parameter.";
static const char set_begin[] = "Dataset name must begin with letter in -dset paramter.";
static const char set_invalid[] = "Invalid character in dataset name in -dset parameter.";
static const char set_long[] = "Dataset name too long in -dset parameter.";
static const char accepted[] = "";

static void expect_valid(const std::string &pattern, const std::string &message)
{
    SCOPED_TRACE(pattern);
    int rc = 0;
    const captured printed = capture([&] { rc = dset_valid(pattern.c_str()); });
    EXPECT_EQ(message.empty() ? "" : message + "\n", printed.err);
    EXPECT_EQ("", printed.out);
    EXPECT_EQ(message.empty() ? 0 : -1, rc);
}

TEST(DsetPat, ValidTable)
{
    const struct {
        const char *pattern;
        const char *message;
    } cases[] = {
        {"", accepted},
        {":", accepted},
        {"@", accepted},
        {"cust", accepted},
        {":cust", accepted},
        {"orders:", accepted},
        {"orders:cust", accepted},
        {"@.CUST@", accepted},
        {"A1.2-3@b:X", accepted},
        {"@1:X", accepted},
        {"DB:@1", accepted},
        {"DB:A0123456789+-*/", accepted},
        {"DB:A+-*/?'#%&9@b", accepted},
        {"CUST+1", db_invalid},
        {":CUST+1", accepted},
        {"1DB:X", db_begin},
        {".DB", db_begin},
        {"-DB", db_begin},
        {"9", db_begin},
        {"_DB", db_invalid},
        {"D_B:X", db_invalid},
        {"D B", db_invalid},
        {"D*B", db_invalid},
        {"1_", db_begin}, // the first error counts
        {"_1", db_invalid},
        {"D\xC4:X", db_invalid},
        {"DB:1X", set_begin},
        {":1X", set_begin},
        {":+X", set_begin},
        {":*", set_begin},
        {":?X", set_begin},
        {":&", set_begin},
        {"DB:X.Y", set_invalid},
        {"DB:.X", set_invalid},
        {"DB:X Y", set_invalid},
        {"DB:X:Y", set_invalid},
        {"::", set_invalid},
        {"DB:X_Y", set_invalid},
        {"DB:X\xE4", set_invalid},
        {"DB:ABCDEFGHIJKLMNOP", accepted},  // 16
        {"DB:ABCDEFGHIJKLMNOPQ", set_long}, // 17
        {"DB:@BCDEFGHIJKLMNOP", accepted},
        {"DB:@BCDEFGHIJKLMNOP@", set_long},
        {"DB:ABCDEFGHIJKLMNOPQ.", set_invalid}, // before the length is looked at
        {"1:ABCDEFGHIJKLMNOPQ", db_begin},
    };
    for (const auto &c : cases)
        expect_valid(c.pattern, c.message);
    expect_valid(std::string(5000, 'D') + ":X", accepted); // no limit on the database part
    expect_valid(std::string(5000, 'D'), accepted);
}

TEST(DsetPat, EveryCharacterInEveryPlace)
{
    const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz@";
    const std::string digits = "0123456789";
    for (int code = 1; code < 256; code++) {
        const char c = static_cast<char>(code);
        const bool letter = letters.find(c) != std::string::npos;
        const bool later_db = (digits + ".-").find(c) != std::string::npos;
        const bool later_set = (digits + "+-*/?'#%&").find(c) != std::string::npos;
        if (c != ':') {
            expect_valid(std::string("D") + c, letter || later_db ? accepted : db_invalid);
            expect_valid(std::string(1, c), letter ? accepted : later_db ? db_begin : db_invalid);
        }
        expect_valid(std::string(":D") + c, letter || later_set ? accepted : set_invalid);
        expect_valid(std::string(":") + c, letter ? accepted : later_set ? set_begin : set_invalid);
    }
}

TEST(DsetPat, StoredForm)
{
    const struct {
        const char *pattern;
        const char *stored;
    } cases[] = {
        {"cust", "@:CUST"},
        {":cust", "@:CUST"},
        {"orders:", "ORDERS:@"},
        {"orders:cust", "ORDERS:CUST"},
        {":", "@:@"},
        {"@.cust@", "@:@.CUST@"},
        {"ORD@", "@:ORD@"},
        {"@", "@:@"},
        {"", "@:"},
        {"a:b+c", "A:B+C"},
        {"x:", "X:@"},
    };
    for (const auto &c : cases) {
        char *stored = copy_dset_parm(c.pattern);
        EXPECT_STREQ(c.stored, stored) << c.pattern;
        free(stored);
    }
}

TEST(DsetPat, MatchTable)
{
    const struct {
        const char *pattern;
        const char *subject;
        int expected;
    } cases[] = {
        {"", "", 1},
        {"", "a", 0},
        {"a", "", 0},
        {"@", "", 1},
        {"@@", "", 1},
        {"@", "anything:at all", 1},
        {"abc", "ABC", 1},
        {"ABC", "abc", 1},
        {"abc", "abcd", 0},
        {"abcd", "abc", 0},
        {"@:@", "X:Y", 1},
        {"@:@", "XY", 0},
        {"@:@", ":", 1},
        {"@:CUST", "ORDERS:CUST", 1},
        {"@:CUST", "orders:cust", 1},
        {"@:CUST", "ORDERS:CUSTOMER", 0},
        {"@:@.CUST@", "X:A.CUSTOMER", 1},
        {"@:@.CUST@", "X:CUSTOMER", 0},
        {"ORDERS:@", "ORDERS:ANY", 1},
        {"ORDERS:@", "ORDERS2:ANY", 0},
        {"ORDERS:@", "ORDERS:", 1},
        {"@:ORD@", "ANY:ORDERS", 1},
        {"@:ORD@", "ORDERS:ANY", 0},
        {"@:ORD@", "A:B:ORD", 1}, // "@" takes colons too
        {"A@B@C", "ABC", 1},
        {"A@B@C", "AxxBxxBC", 1},
        {"A@B@C", "AxxBxx", 0},
        {"@AB", "AAB", 1},
        {"@AB", "ABA", 0},
        {"@AB@", "xAxABx", 1},
        {"A?", "AB", 0}, // only "@" is special
        {"A?", "A?", 1},
        {"A*", "AB", 0},
        {"A*", "A*", 1},
        {"A%", "A%", 1},
        {"A[B]", "AB", 0},
        {"A", "@", 0}, // and only in the pattern
        {"@@@@@@@@@@@@@@@@@@@@@@@@b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.expected, patmatches(c.pattern, c.subject)) << c.pattern << " " << c.subject;
}

// The definition: an "@" takes no character, or one and tries again.
static bool matches(const std::string &pattern, const std::string &subject)
{
    if (pattern.empty())
        return subject.empty();
    if (pattern[0] == '@') {
        for (size_t taken = 0; taken <= subject.size(); taken++) {
            if (matches(pattern.substr(1), subject.substr(taken)))
                return true;
        }
        return false;
    }
    return !subject.empty() && toupper(pattern[0]) == toupper(subject[0]) &&
           matches(pattern.substr(1), subject.substr(1));
}

TEST(DsetPat, RandomPatternsMatchAsDefined)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    const auto random_text = [&](const std::string &alphabet, size_t longest) {
        std::string text;
        for (auto n = rng() % (longest + 1); n > 0; n--)
            text += alphabet[rng() % alphabet.size()];
        return text;
    };
    int hits = 0;
    for (int run = 0; run < 100000; run++) {
        const std::string pattern = random_text("aAb:@@", 8);
        const std::string subject = random_text("aB:@", 10);
        const int expected = matches(pattern, subject) ? 1 : 0;
        hits += expected;
        ASSERT_EQ(expected, patmatches(pattern.c_str(), subject.c_str()))
            << '"' << pattern << "\" \"" << subject << '"';
    }
    EXPECT_GT(hits, 5000);
}

class DsetPatFile : public core_state {
  protected:
    static capfil *file_with(const std::vector<const char *> &patterns)
    {
        capcfg cfg = {};
        for (const char *pattern : patterns)
            EXPECT_EQ(0, add_capcfg_dset(&cfg, pattern));
        capfil *cf = add_file("f", cfg);
        free_capcfg_data(&cfg);
        return cf;
    }

    static int qualifies(const capfil *cf, const std::string &db, const std::string &set)
    {
        log_record record = {};
        record.dbname = db.c_str();
        record.dsetname = set.c_str();
        return dset_qualifies(cf, &record);
    }
};

TEST_F(DsetPatFile, WithoutPatternsAllRecordsQualify)
{
    const capfil *cf = file_with({});
    EXPECT_EQ(1, qualifies(cf, "ANY", "SET"));
    EXPECT_EQ(1, qualifies(cf, "", ""));
    log_record nameless = {};
    EXPECT_EQ(1, dset_qualifies(cf, &nameless));
}

TEST_F(DsetPatFile, AnyPatternDecides)
{
    const capfil *cf = file_with({"orders:cust", "stock:", "@LOG"});
    EXPECT_EQ(1, qualifies(cf, "ORDERS", "CUST"));
    EXPECT_EQ(0, qualifies(cf, "ORDERS", "CUST2"));
    EXPECT_EQ(1, qualifies(cf, "Stock", "anything"));
    EXPECT_EQ(1, qualifies(cf, "OTHER", "AUDIT-LOG"));
    EXPECT_EQ(0, qualifies(cf, "OTHER", "LOGS"));
    EXPECT_EQ(1, find_dset(cf, "ORDERS", "CUST"));
    EXPECT_EQ(0, find_dset(cf, "ORDERS", ""));
}

TEST_F(DsetPatFile, DatasetIsMatchedOnItsFirst16Characters)
{
    const capfil *cf = file_with({":ABCDEFGHIJKLMNOP"});
    EXPECT_EQ(1, qualifies(cf, "D", "ABCDEFGHIJKLMNOP"));
    EXPECT_EQ(1, qualifies(cf, "D", "ABCDEFGHIJKLMNOPQRST"));
    EXPECT_EQ(0, qualifies(cf, "D", "ABCDEFGHIJKLMNO"));
}

TEST_F(DsetPatFile, DatabaseIsMatchedOnItsFirst256Characters)
{
    const capfil *cf = file_with({(std::string(256, 'D') + ":X").c_str()});
    EXPECT_EQ(0, qualifies(cf, std::string(255, 'd'), "X"));
    EXPECT_EQ(1, qualifies(cf, std::string(256, 'd'), "X"));
    EXPECT_EQ(1, qualifies(cf, std::string(256, 'd') + "EEE", "X"));
}

TEST_F(DsetPatFile, RecordWithoutNamesIsMatchedAsEmpty)
{
    log_record nameless = {};
    EXPECT_EQ(1, dset_qualifies(file_with({":"}), &nameless));
    EXPECT_EQ(0, dset_qualifies(file_with({":A"}), &nameless));
}
