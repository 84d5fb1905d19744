// What the rows of a stream tell of their tables.
#include "feed/wal2json/columns.h"
#include "tests/feed/rows.h"

#include <gtest/gtest.h>

#include <random>

// "a:int b:text" as a row.
static feed_row row_of_types(const std::string &text)
{
    feed_row row;
    row.present = true;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find(' ', at), text.size());
        const std::string word = text.substr(at, end - at);
        at = end + 1;
        feed_column column;
        column.name = word.substr(0, word.find(':'));
        column.type_name = word.find(':') == word.npos ? "" : word.substr(word.find(':') + 1);
        row.columns.push_back(column);
    }
    row.count = row.columns.size();
    return row;
}

class Wal2jsonColumns : public testing::Test {
  protected:
    Wal2jsonColumns()
    {
        config = config_of({item_of("A", 'I', 4)});
        tables.config = &config;
        EXPECT_TRUE(feed_find_table(table, tables, "sales", "orders"));
    }

    void take(char action, const std::string &fresh, const std::string &old = "",
              const std::string &key = "")
    {
        w2j_line line;
        line.action = action;
        line.schema = "sales";
        line.table = "orders";
        line.columns = row_of_types(fresh);
        line.identity = row_of_types(old);
        line.key = row_of_types(key);
        w2j_describe(*table, config, line, notes);
    }

    // "a:int b:text | key"
    std::string known() const
    {
        if (table->layout.source == nullptr)
            return "none";
        std::string text;
        std::vector<std::string> key(table->layout.source->columns.size());
        for (const fwu_source_column &column : table->layout.source->columns) {
            text += (text.empty() ? "" : " ") + column.name + ":" + column.type;
            if (column.key > 0)
                key.at(static_cast<size_t>(column.key) - 1) = " " + column.name;
        }
        std::string key_text;
        for (const std::string &name : key)
            key_text += name;
        return text + (key_text.empty() ? "" : " |" + key_text);
    }

    fwu_config config;
    feed_tables tables;
    feed_table *table = nullptr;
    std::vector<std::string> notes;
};

TEST_F(Wal2jsonColumns, NewRowOfAnInsertIsTheTable)
{
    EXPECT_EQ(known(), "none");
    take('I', "a:integer b:text");
    EXPECT_EQ(known(), "a:integer b:text");
    const fwu_source *const first = table->layout.source.get();
    take('I', "a:integer b:text");
    EXPECT_EQ(table->layout.source.get(), first);
    take('I', "a:integer b:character(4)");
    EXPECT_EQ(known(), "a:integer b:character(4)");
    take('I', "b:character(4) a:integer");
    EXPECT_EQ(known(), "b:character(4) a:integer");
    take('I', "a:integer");
    EXPECT_EQ(known(), "a:integer");
    take('I', "a:integer c:date");
    EXPECT_EQ(known(), "a:integer c:date");
}

TEST_F(Wal2jsonColumns, ValueThatAnUpdateLeavesOutChangesNothing)
{
    take('I', "a:integer b:text c:text");
    const fwu_source *const first = table->layout.source.get();
    take('U', "a:integer c:text", "a:integer b:text c:text");
    take('U', "", "a:integer b:text c:text");
    take('U', "a:integer c:text", "a:integer");
    take('D', "", "a:integer b:text c:text");
    take('D', "", "b:text");
    EXPECT_EQ(table->layout.source.get(), first);
}

TEST_F(Wal2jsonColumns, WholeOldRowIsTheTable)
{
    take('D', "", "a:integer b:text");
    EXPECT_EQ(known(), "a:integer b:text");
    take('U', "a:integer", "a:integer");
    EXPECT_EQ(known(), "a:integer");
    take('U', "a:integer", "a:integer d:text");
    EXPECT_EQ(known(), "a:integer d:text");
    take('D', "", "a:bigint d:text");
    EXPECT_EQ(known(), "a:bigint d:text");
    take('U', "a:bigint d:text", "d:text a:bigint");
    EXPECT_EQ(known(), "a:bigint d:text") << "columns of both rows stand in one order";
}

TEST_F(Wal2jsonColumns, OldRowThatIsAKeyAloneTellsNoMoreThanItHas)
{
    take('I', "a:integer b:text");
    const fwu_source *const first = table->layout.source.get();
    take('D', "", "a:integer");
    take('U', "a:integer b:text", "a:integer");
    EXPECT_EQ(table->layout.source.get(), first);
    take('U', "a:integer b:date", "a:integer");
    EXPECT_EQ(known(), "a:integer b:date");
    take('D', "", "a:bigint");
    EXPECT_EQ(known(), "a:bigint");
    take('I', "a:bigint b:date");
    EXPECT_EQ(known(), "a:bigint b:date");
}

TEST_F(Wal2jsonColumns, KeyIsThatOfTheLine)
{
    take('I', "a:integer b:text c:date", "", "c a");
    EXPECT_EQ(known(), "a:integer b:text c:date | c a");
    take('U', "a:integer c:date", "a:integer b:text c:date", "c a");
    EXPECT_EQ(known(), "a:integer b:text c:date | c a");
    take('D', "", "a:integer b:text c:date", "a");
    EXPECT_EQ(known(), "a:integer b:text c:date | a");
    take('I', "a:integer b:text c:date");
    EXPECT_EQ(known(), "a:integer b:text c:date");
    config.datasets[0].key = {0};
    take('I', "a:integer b:text c:date", "", "b");
    EXPECT_EQ(known(), "a:integer b:text c:date | a") << "the configuration's goes before it";
}

// A table that changes now and then, with whole old rows: what is known is what it was at its
// last line, but for a column that was dropped before a delete and one whose value is left out.
TEST_F(Wal2jsonColumns, KnownIsTheTableAtItsLastChange)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](size_t n) { return random() % n; };
    const char *const types[] = {"integer", "text", "numeric(9,2)", "date"};
    const auto text_of = [](const std::vector<std::string> &columns) {
        std::string text;
        for (const std::string &column : columns)
            text += (text.empty() ? "" : " ") + column;
        return text;
    };
    std::vector<std::string> columns = {"a:integer"}; // of which none is dropped
    int made = 0;
    std::string last;
    const fwu_source *object = nullptr;
    for (int step = 0; step < 3000; step++) {
        if (below(5) == 0) {
            const std::string column = "c" + std::to_string(++made) + ":" + types[below(4)];
            if (below(2) == 0 && columns.size() > 1)
                columns[1 + below(columns.size() - 1)] = column; // renamed, or another type
            else if (columns.size() < 9)
                columns.push_back(column);
        }
        const std::string whole = text_of(columns);
        std::vector<std::string> sent = columns;
        while (sent.size() > 1 && below(3) == 0)
            sent.erase(sent.begin() + 1 + static_cast<std::ptrdiff_t>(below(sent.size() - 1)));
        const size_t action = below(3);
        if (action == 0)
            take('I', whole);
        else if (action == 1)
            take('U', text_of(sent), whole);
        else
            take('D', "", whole);
        ASSERT_EQ(known(), whole) << step;
        if (whole == last) {
            ASSERT_EQ(table->layout.source.get(), object) << step;
        }
        last = whole;
        object = table->layout.source.get();
    }
}
