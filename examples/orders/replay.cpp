// Replay of capture records and comparison with the final contents.
#include "examples/orders/replay.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

constexpr int HEADER_SIZE = 62;
constexpr int MESSAGE_HEADER_SIZE = 141; // with year, session and record number

static const replay_keys order_keys = {
    {"depot.items", {"ITEM-NO"}},       {"depot.stock", {"DEPOT-NO", "ITEM-NO"}},
    {"depot.stock_moves", {"MOVE-NO"}}, {"sales.customers", {"CUST-NO"}},
    {"sales.orders", {"ORDER-NO"}},     {"sales.order_lines", {"ORDER-NO", "LINE-NO"}},
    {"sales.payments", {"PAY-REF"}},    {"sales.day_totals", {"DAY", "CHANNEL"}},
};

static std::string read_whole(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

static std::string to_table_name(const std::string &dbname, const std::string &dsetname)
{
    std::string name = dbname + "." + dsetname;
    for (char &c : name)
        c = c == '-' ? '_' : static_cast<char>(tolower(c));
    return name;
}

static std::string to_item_name(std::string column)
{
    for (char &c : column)
        c = c == '_' ? '-' : static_cast<char>(toupper(c));
    return column;
}

replay replay_open(const std::string &cfg)
{
    return replay_open(cfg, order_keys);
}

replay replay_open(const std::string &cfg, const replay_keys &keys)
{
    replay state;
    std::string dbname;
    replay_table *table = nullptr;
    std::istringstream lines(read_whole(cfg));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string key;
        std::string name;
        words >> key >> name;
        if (key == "database") {
            dbname = name;
        } else if (key == "dataset") {
            table = &state.tables[to_table_name(dbname, name)];
            table->dbname = dbname;
            table->dsetname = name;
            table->key = keys.at(to_table_name(dbname, name));
        } else if (key == "item") {
            replay_item item;
            item.name = name;
            words >> item.type >> item.size;
            for (std::string word; words >> word;) {
                if (word[0] == 'x')
                    item.count = atoi(word.c_str() + 1);
                else if (word.rfind("scale=", 0) == 0)
                    item.scale = atoi(word.c_str() + 6);
                else if (word == "null-map")
                    item.null_map = true;
            }
            table->items.push_back(item);
        }
    }
    return state;
}

static int column_width(const replay_item &item)
{
    switch (item.type) {
    case 'E':
    case 'R':
        return item.size == 4 ? 15 : 25;
    case 'I':
    case 'J':
        return item.size == 8 ? 30 : 14;
    case 'K':
        return item.size == 8 ? 30 : 15;
    case 'P':
        return 2 * item.size;
    case 'Z':
        return item.size + 1;
    default:
        return item.size;
    }
}

static int item_width(const replay_item &item)
{
    return column_width(item) * item.count;
}

int replay_width(const replay_table &table)
{
    int width = 0;
    for (const replay_item &item : table.items)
        width += item_width(item);
    return width;
}

static std::string key_of(const replay_table &table, const std::string &row)
{
    std::string key;
    for (const std::string &name : table.key) {
        size_t at = 0;
        for (const replay_item &item : table.items) {
            if (item.name == name)
                key += row.substr(at, static_cast<size_t>(item_width(item))) + "|";
            at += static_cast<size_t>(item_width(item));
        }
    }
    return key;
}

static std::string trimmed(const std::string &text)
{
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

static void take_out(replay &state, replay_table &table, const std::string &row,
                     const std::string &line)
{
    const auto found = table.rows.find(key_of(table, row));
    if (found == table.rows.end())
        state.errors.push_back("no such row to change: " + line);
    else if (found->second != row)
        state.errors.push_back("before image is not the row: " + line);
    else
        table.rows.erase(found);
}

static void put_in(replay &state, replay_table &table, const std::string &row,
                   const std::string &line)
{
    if (!table.rows.emplace(key_of(table, row), row).second)
        state.errors.push_back("row is there already: " + line);
}

// The table that a record's header names; null when there is none.
static replay_table *table_of(replay &state, const std::string &record)
{
    const auto found = state.tables.find(
        to_table_name(trimmed(record.substr(6, 24)), trimmed(record.substr(30, 16))));
    if (found == state.tables.end()) {
        state.errors.push_back("unknown dataset: " + record);
        return nullptr;
    }
    return &found->second;
}

// Applies a change; body has the columns of its image or images.
static void apply(replay &state, replay_table &table, const std::string &op,
                  const std::string &body, const std::string &record)
{
    const auto width = static_cast<size_t>(replay_width(table));
    if (body.size() != (op == "IU" ? 2 * width : width)) {
        state.errors.push_back("wrong length: " + record);
        return;
    }
    if (op == "IP") {
        put_in(state, table, body, record);
    } else if (op == "ID") {
        take_out(state, table, body, record);
    } else if (op == "IU") {
        take_out(state, table, body.substr(0, width), record);
        put_in(state, table, body.substr(width), record);
    } else {
        state.errors.push_back("unknown operation: " + record);
    }
    table.changes++;
}

void replay_line(replay &state, const std::string &line)
{
    if (line.size() < HEADER_SIZE) {
        state.errors.push_back("short record: " + line);
        return;
    }
    if (replay_table *table = table_of(state, line))
        apply(state, *table, line.substr(60, 2), line.substr(HEADER_SIZE), line);
}

void replay_file(replay &state, const std::string &path)
{
    const std::string text = read_whole(path);
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        if (end == std::string::npos) {
            state.errors.push_back("last line is not ended");
            return;
        }
        replay_line(state, text.substr(at, end - at));
        at = end + 1;
    }
}

// One field of the final contents; null is told from text.
struct csv_field {
    std::string text;
    bool null = false;
};

static std::vector<std::vector<csv_field>> read_csv(const std::string &path)
{
    const std::string text = read_whole(path);
    std::vector<std::vector<csv_field>> rows(1);
    csv_field field;
    bool quoted = false;
    for (size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        if (quoted) {
            if (c != '"')
                field.text += c;
            else if (i + 1 < text.size() && text[i + 1] == '"')
                field.text += text[i++];
            else
                quoted = false;
        } else if (c == '"') {
            quoted = true;
        } else if (c == ',' || c == '\n') {
            field.null = field.text == "\\N";
            rows.back().push_back(field);
            field = {};
            if (c == '\n')
                rows.emplace_back();
        } else {
            field.text += c;
        }
    }
    rows.pop_back();
    return rows;
}

// UTF-8 of characters up to U+00FF as the text column shows it.
static std::string shown(const std::string &utf8)
{
    std::string out;
    for (size_t i = 0; i < utf8.size(); i++) {
        auto c = static_cast<unsigned char>(utf8[i]);
        if (c >= 0xC0)
            c = static_cast<unsigned char>((c << 6) | (utf8[++i] & 0x3F));
        out += c < 0x20 || c > 0x7E ? '~' : static_cast<char>(c);
    }
    return out;
}

static std::string right(const std::string &text, int width)
{
    return std::string(static_cast<size_t>(width) - text.size(), ' ') + text;
}

// The digits of a decimal number as a whole number of its last place.
static std::string packed(const std::string &text, int scale, int width)
{
    const bool negative = text[0] == '-';
    const size_t point = text.find('.');
    std::string digits = text.substr(negative ? 1 : 0, point - (negative ? 1 : 0));
    std::string fraction = point == std::string::npos ? "" : text.substr(point + 1);
    fraction.resize(static_cast<size_t>(scale), '0');
    digits += fraction;
    return (negative ? "-" : "+") +
           std::string(static_cast<size_t>(width - 1) - digits.size(), '0') + digits;
}

// A time stamp in the form that its item's width asks for: the database drops
// trailing zeros of the fraction.
static void pad_fraction(std::string &text, size_t width)
{
    constexpr size_t SECONDS_SIZE = 19; // 2026-03-09 08:18:01
    if (text.size() < SECONDS_SIZE || text[4] != '-' || text[13] != ':' || width <= SECONDS_SIZE)
        return;
    if (text.size() == SECONDS_SIZE)
        text += '.';
    text.resize(width, '0');
}

// The text column of one value.
static std::string column(const replay_item &item, const csv_field &field)
{
    const int width = column_width(item);
    char buf[64];
    switch (item.type) {
    case 'E':
    case 'R':
        if (item.size == 4)
            snprintf(buf, sizeof buf, "%15.7G",
                     field.null ? 0.0 : static_cast<double>(strtof(field.text.c_str(), nullptr)));
        else
            snprintf(buf, sizeof buf, "%25.12G",
                     field.null ? 0.0 : strtod(field.text.c_str(), nullptr));
        return buf;
    case 'I':
    case 'J':
    case 'K':
        return right(field.null ? "0" : field.text, width);
    case 'P':
        return packed(field.null ? "0" : field.text, item.scale, width);
    default: {
        std::string text = field.null ? "" : shown(field.text);
        if (item.type == 'X')
            pad_fraction(text, static_cast<size_t>(width));
        text.resize(static_cast<size_t>(width), ' ');
        return text;
    }
    }
}

static std::string expected_row(const replay_table &table,
                                const std::map<std::string, csv_field> &fields)
{
    std::string row;
    std::string nulls;
    for (const replay_item &item : table.items) {
        if (item.null_map)
            continue;
        csv_field field = fields.at(item.name);
        nulls += field.null ? 'N' : '.';
        if (item.count > 1) {
            std::istringstream elements(field.text.substr(1, field.text.size() - 2));
            for (std::string text; std::getline(elements, text, ',');)
                row += column(item, {text, false});
        } else {
            // The database shows t and f, the image holds T and F.
            if (item.type == 'X' && item.size == 1 && (field.text == "t" || field.text == "f"))
                field.text[0] = static_cast<char>(toupper(field.text[0]));
            row += column(item, field);
        }
    }
    if (!table.items.empty() && table.items.back().null_map)
        row += nulls;
    return row;
}

// ---- images

static int64_t whole_number(const std::string &bytes)
{
    uint64_t value = 0;
    for (size_t i = bytes.size(); i-- > 0;)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    const auto unused = static_cast<int>(64 - 8 * bytes.size());
    return static_cast<int64_t>(value << unused) >> unused;
}

template <typename T> static T real_number(const std::string &bytes)
{
    T value = 0;
    if (bytes.size() == sizeof value)
        memcpy(&value, bytes.data(), sizeof value);
    return value;
}

// Two digits a byte, the last half byte a sign: D is minus.
static std::string packed_number(const std::string &bytes)
{
    std::string digits;
    for (const char c : bytes) {
        digits += "0123456789ABCDEF"[static_cast<unsigned char>(c) >> 4];
        digits += "0123456789ABCDEF"[c & 15];
    }
    const char sign = digits.back() == 'D' ? '-' : '+';
    digits.pop_back();
    return sign + digits;
}

// The text column of one element of an image.
static std::string image_column(const replay_item &item, const std::string &bytes)
{
    char buf[64];
    switch (item.type) {
    case 'E':
        if (item.size == 4)
            snprintf(buf, sizeof buf, "%15.7G", static_cast<double>(real_number<float>(bytes)));
        else
            snprintf(buf, sizeof buf, "%25.12G", real_number<double>(bytes));
        return buf;
    case 'I':
        return right(std::to_string(whole_number(bytes)), column_width(item));
    case 'P':
        return packed_number(bytes);
    default: {
        std::string text = bytes;
        for (char &c : text)
            c = c < 0x20 || c > 0x7E ? '~' : c;
        return text;
    }
    }
}

// The columns of one image, which is taken off the front of bytes.
static std::string image_row(const replay_table &table, std::string &bytes)
{
    std::string row;
    for (const replay_item &item : table.items) {
        for (int i = 0; i < item.count; i++) {
            const auto size = static_cast<size_t>(item.size);
            if (bytes.size() < size)
                return "";
            row += image_column(item, bytes.substr(0, size));
            bytes.erase(0, size);
        }
    }
    return row;
}

void replay_message(replay &state, const std::string &record)
{
    if (record.size() < MESSAGE_HEADER_SIZE) {
        state.errors.push_back("short record: " + record);
        return;
    }
    replay_table *table = table_of(state, record);
    if (table == nullptr)
        return;
    std::string images = record.substr(MESSAGE_HEADER_SIZE);
    std::string body;
    while (!images.empty()) {
        const std::string row = image_row(*table, images);
        body += row;
        if (row.empty()) {
            state.errors.push_back("image of a wrong length: " + record);
            return;
        }
    }
    apply(state, *table, record.substr(62, 2), body, record);
}

// ---- final contents

void replay_compare(replay &state, const std::string &final_csv)
{
    replay_table *table = nullptr;
    std::vector<csv_field> columns;
    std::set<std::string> seen;
    std::set<std::string> keys;
    const auto finish = [&] {
        if (table != nullptr && keys.size() != table->rows.size())
            state.errors.push_back(table->dsetname + ": " + std::to_string(table->rows.size()) +
                                   " rows instead of " + std::to_string(keys.size()));
        keys.clear();
    };
    for (const auto &line : read_csv(final_csv)) {
        if (line[0].text[0] == '@') {
            finish();
            table = &state.tables.at(line[0].text.substr(1));
            seen.insert(line[0].text.substr(1));
            columns = line;
            continue;
        }
        std::map<std::string, csv_field> fields;
        for (size_t i = 1; i < line.size(); i++)
            fields[to_item_name(columns[i].text)] = line[i];
        const std::string row = expected_row(*table, fields);
        keys.insert(key_of(*table, row));
        const auto found = table->rows.find(key_of(*table, row));
        if (found == table->rows.end())
            state.errors.push_back("missing row: " + row);
        else if (found->second != row)
            state.errors.push_back("row differs:\n  has   " + found->second + "\n  wants " + row);
    }
    finish();
    if (seen.size() != state.tables.size())
        state.errors.push_back("the final contents lack a table");
}
