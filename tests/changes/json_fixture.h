// Changes made by hand, and the lines of JSON that come of them.
#ifndef TESTS_CHANGES_JSON_FIXTURE_H
#define TESTS_CHANGES_JSON_FIXTURE_H

#include "changes/change.h"
#include "changes/json.h"
#include "tests/changes/made_changes.h"

#include <deque>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

using namespace std::string_literals;

// The lines of changes of one transaction.
struct json_lines {
    explicit json_lines(change_json_options options = {}) : json(options)
    {
    }

    void put(change_op op, const change_dataset &dataset, const std::string &before,
             const std::string &after, const fwu_session_view *session = nullptr,
             const whole_values &whole = {})
    {
        change next;
        next.op = op;
        next.dataset = &dataset;
        next.session = session;
        next.record = ++record;
        next.before = {image(dataset, before), whole.before};
        next.after = {image(dataset, after), whole.after};
        put(next);
    }

    void put_mark(const fwu_mark &mark, const change_dataset *dataset = nullptr)
    {
        change next;
        next.op = static_cast<change_op>(mark.kind);
        next.dataset = dataset;
        next.mark = &mark;
        put(next);
    }

    void put(change &next)
    {
        next.n = ++n;
        next.position = {1, 25, 3 + static_cast<int32_t>(n)};
        change_json_put(json, out, next, transaction);
    }

    void commit()
    {
        change_json_end(json, out, true);
        n = 0;
    }

    // What has been put out since the last call.
    std::string taken()
    {
        return std::exchange(out, {});
    }

    change_json json;
    change_transaction transaction = transaction_at();
    std::string out;
    int32_t record = 0;
    uint64_t n = 0;
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

// What stands behind "source": in the first line of a transaction without session that has
// one change; names: of database, dataset and table.
inline std::string rest_of_line(const std::string &names, int32_t record = 1)
{
    return R"("source":{)" + names + R"(,"position":"1-25.4","record":)" +
           (record == 0 ? "null" : std::to_string(record)) +
           R"(,"xid":846,"lsn":"0/19B2DF0","commit_us":1700000000000250,)"
           R"("program":null,"user":null,"login":null,"pid":null},)"
           R"("transaction":{"id":"1-25.9","n":1,"last":true},"ts_ms":1700000000000})"
           "\n";
}

// The members of one image, as they stand in the line of its insert.
inline std::string values_of(const change_dataset &dataset, const std::string &image,
                             change_json_options options = {},
                             const std::vector<fwu_value> &whole = {})
{
    json_lines lines(options);
    lines.put(CHANGE_CREATE, dataset, "", image, nullptr, {{}, whole});
    lines.commit();
    const std::string line = lines.out.substr(lines.out.find('\n') + 1);
    const std::string front = R"({"op":"c","before":null,"after":)";
    const std::string back =
        "," + rest_of_line(R"("database":"SALES","dataset":")" + dataset.layout.dsetname +
                           R"(","table":)" +
                           (dataset.table.empty() ? "null" : '"' + dataset.table + '"'));
    EXPECT_TRUE(line.starts_with(front)) << line;
    EXPECT_TRUE(line.ends_with(back)) << line << back;
    return line.substr(front.size(), line.size() - front.size() - back.size());
}

#endif
