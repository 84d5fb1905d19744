// The recorded stream as statements gives a SQLite database the contents that the recorded one
// had at the end.
#include "tests/tools/fwlog/sqlite.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";
static const std::string example = KESTRO_SOURCE_DIR "/examples/orders";

using table_rows = std::multiset<std::vector<std::string>>;

static std::vector<std::string> csv_fields(const std::string &line)
{
    std::vector<std::string> fields = {""};
    bool quoted = false;
    for (size_t i = 0; i < line.size(); i++)
        if (line[i] == '"' && quoted && i + 1 < line.size() && line[i + 1] == '"')
            fields.back().push_back(line[i++]);
        else if (line[i] == '"')
            quoted = !quoted;
        else if (line[i] == ',' && !quoted)
            fields.emplace_back();
        else
            fields.back().push_back(line[i]);
    return fields;
}

static bool is_float(const std::string &column)
{
    static const std::set<std::string> names = {"weight",   "volume",  "discount",
                                                "disc_pct", "fx_rate", "avg_order"};
    return names.count(column) != 0;
}

// The value as SQLite has it: no blanks at the end, true as 1, timestamps with the digits that
// their item has.
static std::string expected(const std::string &column, std::string value)
{
    static const std::set<std::string> booleans = {"discontd", "active", "paid", "void"};
    static const std::map<std::string, size_t> stamps = {
        {"moved_at", 26}, {"created", 26}, {"paid_at", 23}};
    value.resize(value.find_last_not_of(' ') + 1);
    if (value == "\\N")
        return value;
    if (booleans.count(column) != 0)
        return value == "t" ? "1" : "0";
    if (const auto stamp = stamps.find(column); stamp != stamps.end()) {
        if (value.size() == 19)
            value.push_back('.');
        value.resize(stamp->second, '0');
    }
    if (!is_float(column))
        return value;
    char text[40];
    (void)snprintf(text, sizeof text, "%.17g", strtod(value.c_str(), nullptr));
    return text;
}

TEST(FwlogSqlOrders, TheRecordedStreamGivesTheDatabasesTables)
{
    if (sqlite::missing())
        GTEST_SKIP() << "sqlite3 is missing (Debian package sqlite3)";
    const tempdir dir;
    run_setup setup;
    setup.directory = dir.path();
    write_file(dir.file("fwutil.cfg"), read_file(example + "/fwutil.cfg"));
    const run_result load =
        run_program({program, "load", example + "/orders-changes.jsonl"}, setup);
    ASSERT_EQ(load.status, 0) << load.err;

    std::map<std::string, std::vector<std::string>> columns;
    std::map<std::string, table_rows> rows;
    std::istringstream csv(read_file(example + "/orders-final.csv"));
    for (std::string line; std::getline(csv, line);) {
        // A text of several lines stands in quotes.
        for (std::string more;
             std::count(line.begin(), line.end(), '"') % 2 != 0 && std::getline(csv, more);)
            line += "\n" + more;
        std::vector<std::string> fields = csv_fields(line);
        const std::string name = fields.front();
        fields.erase(fields.begin());
        if (name.front() == '@') {
            columns[name.substr(1)] = fields;
            continue;
        }
        for (size_t i = 0; i < fields.size(); i++)
            fields[i] = expected(columns[name][i], fields[i]);
        rows[name].insert(fields);
    }
    ASSERT_EQ(columns.size(), 8U);

    for (const bool positioned : {false, true}) {
        std::vector<std::string> words = {program, "sql", "--dialect", "sqlite", "--create-tables"};
        if (positioned)
            words.insert(words.end(), {"--position-table", "done"});
        const run_result text = run_program(words, setup);
        ASSERT_EQ(text.status, 0) << text.err;
        const sqlite copy(dir.file(positioned ? "positioned.db" : "plain.db"));
        EXPECT_EQ(copy.run(text.out).err, "");
        EXPECT_EQ(positioned ? copy.run(text.out).err : "", "");
        for (const auto &[table, names] : columns) {
            std::string list;
            for (const std::string &name : names)
                list += (list.empty() ? "" : ", ") +
                        (is_float(name) ? "CASE WHEN " + name +
                                              " IS NOT NULL THEN printf('%!.17g', " + name + ") END"
                                        : name);
            std::string target = table;
            target[table.find('.')] = '_';
            table_rows found;
            for (std::vector<std::string> row : copy.rows("SELECT " + list + " FROM " + target)) {
                for (size_t i = 0; i < row.size(); i++)
                    if (is_float(names[i]))
                        row[i] = expected(names[i], row[i]);
                found.insert(row);
            }
            EXPECT_EQ(found, rows[table]) << table;
        }
    }
}
