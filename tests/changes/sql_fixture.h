// Changes made by hand, and the statements that come of them.
#ifndef TESTS_CHANGES_SQL_FIXTURE_H
#define TESTS_CHANGES_SQL_FIXTURE_H

#include "changes/sql.h"
#include "changes/sql_dialect.h"
#include "tests/changes/made_changes.h"

#include <deque>
#include <gtest/gtest.h>

using namespace std::string_literals;

inline sql_options sql_for(const char *dialect)
{
    sql_options options;
    options.dialect = sql_dialect_of(dialect);
    return options;
}

// The statements of transactions at 1-25.9, 1-25.19, ..., 0/19B2DF0, 0/19B2E00, ...
struct sql_lines {
    explicit sql_lines(sql_options options) : writer(std::move(options))
    {
        transaction.identity.bytes[15] = 0xAB;
        sql_begin_behind(writer, {1, 25, 0});
    }

    // Empty, or what was wrong.
    std::string put(change_op op, const change_dataset &dataset, const std::string &before,
                    const std::string &after, const whole_values &whole = {})
    {
        change next;
        next.op = op;
        next.dataset = &dataset;
        next.before = {image(dataset, before), whole.before};
        next.after = {image(dataset, after), whole.after};
        return put(next);
    }

    std::string put_mark(const fwu_mark &mark, const change_dataset *dataset = nullptr)
    {
        change next;
        next.op = static_cast<change_op>(mark.kind);
        next.dataset = dataset;
        next.mark = &mark;
        return put(next);
    }

    std::string put(change &next)
    {
        next.position = {1, 25, transaction.position.tag - 1};
        const outcome done = sql_put(writer, out, next, transaction);
        return done ? "" : done.text();
    }

    void commit()
    {
        sql_end(writer, out);
        transaction.position.tag += 10;
        transaction.commit.lsn += 0x10;
    }

    // What has come since the last call, without what begins and ends a transaction.
    std::string taken()
    {
        std::string text = std::exchange(out, {});
        if (const size_t begin = text.rfind("BEGIN;\n"); begin != text.npos)
            text.erase(0, begin + 7);
        return text.substr(0, text.find("COMMIT;\n"));
    }

    // The statements of one change.
    std::string of(change_op op, const change_dataset &dataset, const std::string &before,
                   const std::string &after, const whole_values &whole = {})
    {
        EXPECT_EQ(put(op, dataset, before, after, whole), "");
        commit();
        return taken();
    }

    sql_writer writer;
    change_transaction transaction = transaction_at();
    std::string out;
    std::deque<std::string> images; // live as long as the lines

  private:
    const unsigned char *image(const change_dataset &dataset, const std::string &bytes)
    {
        if (bytes.empty())
            return nullptr;
        EXPECT_EQ(bytes.size(), static_cast<size_t>(dataset.image_length));
        // Its own piece of memory, so that a sanitizer sees what lies behind it.
        images.push_back(bytes);
        images.back().shrink_to_fit();
        return reinterpret_cast<const unsigned char *>(images.back().data());
    }
};

// An integer, a decimal, a text and what tells of nulls: 2, 2, 4 and 3 bytes.
inline std::vector<fwu_item> order_items()
{
    return {{.name = "NO", .type = 'I', .size = 2},
            {.name = "NET", .type = 'P', .size = 2, .item_aux = 1},
            {.name = "TAG", .type = 'X', .size = 4},
            {.name = "NULL-MAP", .type = 'X', .size = 3}};
}

inline change_dataset bare_orders()
{
    return dataset_of("ORDERS", order_items(), "NULL-MAP");
}

// Of table sales.orders; keyed: column no is its key.
inline change_dataset sourced_orders(bool keyed)
{
    change_dataset dataset = bare_orders();
    set_source(dataset, "orders",
               {{.name = "no", .type = "smallint", .item = 0, .key = keyed ? 1 : 0},
                {.name = "net", .type = "numeric(3,1)", .item = 1},
                {.name = "gone", .type = "text", .item = -1},
                {.name = "the tag", .type = "character varying(4)", .item = 2}});
    if (keyed)
        dataset.key = {0};
    return dataset;
}

inline const std::string FIRST = "\x05\x00\x12\x3C"
                                 "a   ..."s; // 5, 12.3, "a"
inline const std::string SECOND = "\xFF\xFF\x00\x5D"
                                  "    ..N"s; // -1, -0.5, null

#endif
