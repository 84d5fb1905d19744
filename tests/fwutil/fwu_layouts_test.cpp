// Layouts that the writer keeps, and the log of one that has forgotten some.
#include "fwutil/fwu_layouts.h"

#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_layout_check.h"
#include "fwutil/fwu_log.h"
#include "tests/fwutil/log_fixture.h"

#include <iostream>
#include <random>

static fwu_layout layout_of(size_t dataset, size_t items)
{
    fwu_layout layout = {.dbname = "SALES", .dsetname = "D" + std::to_string(dataset), .items = {}};
    for (size_t i = 0; i < items; i++)
        layout.items.push_back({"I" + std::to_string(i), 'I', 2, 1, 0});
    auto source = std::make_shared<fwu_source>();
    source->schema = "sales";
    source->table = "d" + std::to_string(dataset) + "_" + std::to_string(items);
    layout.source = std::move(source);
    return layout;
}

TEST(Layouts, AreForgottenAllAtOnceWhenThereAreTooMany)
{
    fwu_layouts layouts;
    EXPECT_TRUE(fwu_layouts_put(layouts, "a", layout_of(1, FWU_LAYOUTS_ITEMS_MAX / 2)));
    EXPECT_TRUE(fwu_layouts_put(layouts, "b", layout_of(2, FWU_LAYOUTS_ITEMS_MAX / 2)));
    EXPECT_TRUE(fwu_layouts_put(layouts, "b", layout_of(3, FWU_LAYOUTS_ITEMS_MAX / 2)))
        << "instead";
    ASSERT_NE(fwu_layouts_find(layouts, "b"), nullptr);
    EXPECT_EQ(fwu_layouts_find(layouts, "b")->dsetname, "D3");
    EXPECT_EQ(layouts.items, FWU_LAYOUTS_ITEMS_MAX);
    EXPECT_FALSE(fwu_layouts_put(layouts, "c", layout_of(4, 1)));
    EXPECT_EQ(layouts.items, 1U);
    EXPECT_EQ(fwu_layouts_find(layouts, "a"), nullptr);
    EXPECT_EQ(fwu_layouts_find(layouts, "b"), nullptr);
    EXPECT_NE(fwu_layouts_find(layouts, "c"), nullptr);
    EXPECT_FALSE(fwu_layouts_put(layouts, "d", layout_of(5, FWU_LAYOUTS_ITEMS_MAX + 1)));
    EXPECT_NE(fwu_layouts_find(layouts, "d"), nullptr) << "alone";
    fwu_layouts_clear(layouts);
    EXPECT_EQ(layouts.items, 0U);
    EXPECT_EQ(fwu_layouts_find(layouts, "d"), nullptr);
}

class ManyLayouts : public log_test {
  protected:
    // A record whose bytes are those of its layout, which a reader's has to be.
    void put_record(size_t dataset, size_t items)
    {
        const std::string image(2 * items, static_cast<char>('a' + dataset % 26));
        ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, layout_of(dataset, items), 1,
                                    static_cast<int32_t>(image.size()), nullptr, image.data()),
                  0);
    }

    void check_entry(const fwu_entry &entry)
    {
        fwu_layout layout;
        fwu_layout_source of;
        fwu_change change;
        EXPECT_EQ(fwu_layout_check_entry(check, entry), nullptr);
        if (fwu_entry_layout(entry, layout)) {
            layouts++;
            sources[layout.dsetname] = "";
        } else if (fwu_entry_source(entry, of)) {
            sources[of.dsetname] = of.source.table;
        } else if (fwu_entry_change(entry, change)) {
            records.push_back(sources[change.dsetname]);
        }
    }

    // Reads the log: each record fits the layout before it, and has its source.
    void read_log()
    {
        std::vector<fwu_log_file> files;
        ASSERT_EQ(fwu_log_list(log, files), 0);
        for (const fwu_log_file &file : files) {
            check = {};
            sources.clear();
            fwu_cursor cursor;
            ASSERT_EQ(fwu_log_open(cursor, file), FWU_FOUND);
            while (fwu_cursor_next(cursor) == FWU_FOUND) {
                fwu_entry entry;
                while (fwu_cursor_entry(cursor, entry) == FWU_FOUND)
                    check_entry(entry);
            }
            fwu_cursor_close(cursor);
        }
    }

    fwu_layout_check check;
    std::map<std::string, std::string> sources; // of the layouts that count, by dataset
    std::vector<std::string> records;           // the source of each record
    int layouts = 0;
};

TEST_F(ManyLayouts, ThoseThatWereForgottenStandInTheLogAgain)
{
    constexpr size_t datasets = 60;
    constexpr size_t items = 1000;
    const unsigned seed = std::random_device()();
    std::cout << "seed " << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::vector<std::string> wanted;
    open_writer();
    for (int step = 0; step < 40; step++) {
        if (random() % 8 == 0) {
            close_writer();
            config.log_file_size = random() % 2 == 0 ? 1'000'000 : 64 << 20;
            open_writer();
        }
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        std::vector<std::string> put;
        for (size_t n = random() % 5 == 0 ? 120 : 1 + random() % 5; n > 0; n--) {
            const size_t dataset = random() % datasets;
            const size_t count = items + random() % 2;
            put_record(dataset, count);
            put.push_back("d" + std::to_string(dataset) + "_" + std::to_string(count));
        }
        if (random() % 6 == 0) {
            fwu_writer_rollback(writer);
            continue;
        }
        ASSERT_EQ(commit(), 0);
        wanted.insert(wanted.end(), put.begin(), put.end());
    }
    close_writer();
    ASSERT_NO_FATAL_FAILURE(read_log());
    EXPECT_EQ(records, wanted);
}

TEST_F(ManyLayouts, ThoseThatAreKeptStandInTheLogOnce)
{
    open_writer();
    for (int round = 0; round < 3; round++) {
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        for (size_t dataset = 0; dataset < 39; dataset++)
            put_record(dataset, 1000);
        ASSERT_EQ(commit(), 0);
    }
    close_writer();
    open_writer(); // which learns them from the file
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    put_record(38, 1000);
    ASSERT_EQ(commit(), 0);
    close_writer();
    ASSERT_NO_FATAL_FAILURE(read_log());
    EXPECT_EQ(layouts, 39);
    EXPECT_EQ(records.size(), 3U * 39 + 1);
}
