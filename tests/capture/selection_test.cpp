// Which capture files take a dataset's records, decided once.
#include "capture/selection.h"

#include "capture/capinfo.h"
#include "capture/dsetpat.h"
#include "driver/base/logrec.h"
#include "tests/support/core_state.h"

#include <gmock/gmock.h>
#include <random>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

class Selection : public core_state {
  protected:
    static capfil *file_with(const std::vector<std::string> &patterns)
    {
        capcfg cfg = {};
        for (const std::string &pattern : patterns)
            EXPECT_EQ(0, add_capcfg_dset(&cfg, pattern.c_str())) << pattern;
        capfil *cf = add_file("f", cfg);
        free_capcfg_data(&cfg);
        return cf;
    }

    static std::vector<capfil *> taking(const char *database, const char *dataset)
    {
        log_record record = {};
        record.dbname = database;
        record.dsetname = dataset;
        const auto found = select_files(g_ci, &record);
        return {found.begin(), found.end()};
    }
};

TEST_F(Selection, FilesTakeADatasetInTheOrderOfTheCommandLine)
{
    capfil *const last = file_with({"@:Z", "SALES:ORDERS"});
    capfil *const all = file_with({});
    capfil *const orders = file_with({"@:ORDERS"});
    for (int again = 0; again < 2; again++) {
        EXPECT_THAT(taking("SALES", "ORDERS"), ElementsAre(last, all, orders));
        EXPECT_THAT(taking("STOCK", "ORDERS"), ElementsAre(all, orders));
        EXPECT_THAT(taking("STOCK", "Z"), ElementsAre(last, all));
        EXPECT_THAT(taking("STOCK", "ORDER"), ElementsAre(all));
        EXPECT_THAT(taking(nullptr, nullptr), ElementsAre(all));
    }
}

TEST_F(Selection, NoFileMayTakeIt)
{
    file_with({":A"});
    EXPECT_THAT(taking("D", "B"), IsEmpty());
    EXPECT_THAT(taking("D", "B"), IsEmpty());
}

// What is compared ends behind 256 and 16 characters, and there two names are one.
TEST_F(Selection, NamesAreToldApartAsFarAsTheyAreMatched)
{
    const std::string longest(256, 'D');
    capfil *const file = file_with({longest + ":ABCDEFGHIJKLMNOP"});
    EXPECT_THAT(taking((longest + "E").c_str(), "ABCDEFGHIJKLMNOPQ"), ElementsAre(file));
    EXPECT_THAT(taking((longest + "F").c_str(), "ABCDEFGHIJKLMNOPR"), ElementsAre(file));
    EXPECT_THAT(taking(longest.c_str() + 1, "ABCDEFGHIJKLMNOP"), IsEmpty());
    EXPECT_THAT(taking(longest.c_str(), "ABCDEFGHIJKLMNO"), IsEmpty());
}

// The names may lie at one address, as a library may give each record's in the same buffer.
TEST_F(Selection, NamesMayChangeWhereTheyLie)
{
    capfil *const a = file_with({":A"});
    capfil *const b = file_with({":B"});
    char name[] = "A";
    EXPECT_THAT(taking("D", name), ElementsAre(a));
    name[0] = 'B';
    EXPECT_THAT(taking("D", name), ElementsAre(b));
}

TEST_F(Selection, RandomNamesAreTakenAsEachFileSays)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    const auto text = [&](const char *alphabet, size_t shortest, size_t longest) {
        std::string made;
        for (size_t n = shortest + rng() % (longest - shortest + 1); n > 0; n--)
            made += alphabet[rng() % strlen(alphabet)];
        return made;
    };
    for (int i = 0; i < 20; i++) {
        std::vector<std::string> patterns;
        for (auto n = rng() % 4; n > 0; n--)
            patterns.push_back(text("AB@", 1, 3) + ":" + text("ABC@", 1, 3));
        file_with(patterns);
    }
    size_t taken = 0;
    for (int i = 0; i < 20000; i++) {
        const std::string database = text("aAB:", 0, 2);
        const std::string dataset = text("aABC", 0, 3);
        log_record record = {};
        record.dbname = database.c_str();
        record.dsetname = dataset.c_str();
        std::vector<capfil *> expected;
        for (int f = 0; f < g_ci->ncf; f++)
            if (dset_qualifies(g_ci->capfiles[f], &record) != 0)
                expected.push_back(g_ci->capfiles[f]);
        taken += expected.size();
        ASSERT_EQ(expected, taking(database.c_str(), dataset.c_str()))
            << database << ":" << dataset;
    }
    EXPECT_GT(taken, 20000U);
}
