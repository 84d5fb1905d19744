// Counting captured and skipped records.
#include "capture/stats.h"

#include "capture/slist.h"
#include "driver/base/logrec.h"
#include "tests/support/core_state.h"

class Stats : public core_state {
  protected:
    void count(const char *db, const char *set, int code)
    {
        log_record record = {};
        record.dbname = db;
        record.dsetname = set;
        add_capstat(list, &record, code);
    }

    const setstats *find(const char *db, const char *set)
    {
        const auto *sets = static_cast<slist *>(slist_find(list, db));
        return sets == nullptr ? nullptr : static_cast<setstats *>(slist_find(sets, set));
    }

    void expect(const char *db, const char *set, int inserts, int updates, int deletes)
    {
        SCOPED_TRACE(std::string(db) + "." + set);
        const setstats *stats = find(db, set);
        ASSERT_NE(nullptr, stats);
        EXPECT_EQ(inserts, stats->inserts);
        EXPECT_EQ(updates, stats->updates);
        EXPECT_EQ(deletes, stats->deletes);
    }

    slist *list = slist_new();

    ~Stats() override
    {
        slist_free(list, free_dbsl);
    }
};

TEST_F(Stats, CodesCountInTheirColumn)
{
    count("D", "S", 1);
    count("D", "S", 2);
    count("D", "S", 2);
    count("D", "S", 3);
    count("D", "S", 3);
    count("D", "S", 3);
    expect("D", "S", 1, 2, 3);
}

TEST_F(Stats, OtherCodesMakeTheEntriesOnly)
{
    for (const int code : {0, 4, 5, -1})
        count("D", "S", code);
    expect("D", "S", 0, 0, 0);
    EXPECT_EQ(1, list->n);
}

TEST_F(Stats, DatabasesAndDatasetsAreKeptApart)
{
    count("A", "S", 1);
    count("B", "S", 2);
    count("A", "T", 3);
    count("a", "S", 1);
    expect("A", "S", 1, 0, 0);
    expect("A", "T", 0, 0, 1);
    expect("B", "S", 0, 1, 0);
    expect("a", "S", 1, 0, 0);
    EXPECT_EQ(nullptr, find("B", "T"));
    EXPECT_EQ(3, list->n);
}

TEST_F(Stats, InitGivesEveryCaptureFileAnEmptyList)
{
    const capfil *first = add_file("one");
    const capfil *second = add_file("two");
    EXPECT_EQ(nullptr, first->stats);
    init_capstats(g_ci);
    ASSERT_NE(nullptr, first->stats);
    EXPECT_EQ(0, first->stats->n);
    EXPECT_NE(first->stats, second->stats);
}

TEST_F(Stats, NewCountersAreZero)
{
    setstats *stats = new_setstats();
    EXPECT_EQ(0, stats->inserts + stats->updates + stats->deletes);
    free_setstats(stats);
}
