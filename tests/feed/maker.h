// Images of rows of one table.
#ifndef TESTS_FEED_MAKER_H
#define TESTS_FEED_MAKER_H

#include "feed/image.h"
#include "tests/feed/rows.h"

#include <stdexcept>
#include <string>
#include <vector>

// Makes images of table sales.orders; "error: ..." when that fails.
struct maker {
    explicit maker(fwu_config with) : config(std::move(with))
    {
        tables.config = &config;
        tables.old_row_remedy = "run ALTER TABLE % REPLICA IDENTITY FULL";
        work.settings.big_endian = true;
    }

    std::string finish(const outcome &made)
    {
        return made ? std::string(image.begin(), image.end()) : "error: " + made.text();
    }

    feed_table &table()
    {
        feed_table *found = nullptr;
        if (const outcome looked = feed_find_table(found, tables, "sales", "orders"); !looked)
            throw std::runtime_error(looked.text());
        return *found;
    }

    std::string fresh(const feed_row &row)
    {
        return finish(feed_new_image(work, image, table(), row, nullptr));
    }

    std::string changed(const feed_row &row, const feed_row &old_row)
    {
        return finish(feed_new_image(work, image, table(), row, &old_row));
    }

    std::string old(const feed_row &row)
    {
        return finish(feed_old_image(work, image, table(), row));
    }

    fwu_config config;
    feed_tables tables;
    feed_image_work work;
    std::vector<unsigned char> image;
};

inline fwu_item value_item(char type, int32_t size, int32_t count = 1, int32_t scale = 0)
{
    return item_of("VALUE", type, size, count, scale);
}

#endif
