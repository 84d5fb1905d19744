// A value's literal takes the type of its column: numbers are never written as something that
// would be rounded on the way.
#include "changes/sql_literal.h"

#include "changes/sql_dialect.h"
#include "changes/value.h"
#include "util/utf8.h"

// 0 or 1 for the forms in which logs have booleans, else -1.
static int boolean_of(std::string_view text)
{
    if (text == "T" || text == "1")
        return 1;
    return text == "F" || text == "0" ? 0 : -1;
}

// Appends an element to the text of an array.
static bool put_element(std::string &out, const sql_column &column, change_value kind,
                        std::string_view text)
{
    if (column.boolean) {
        const int is = boolean_of(text);
        if (is >= 0)
            out.push_back(is == 1 ? 't' : 'f');
        return is >= 0;
    }
    if (kind != CHANGE_LATIN1 && kind != CHANGE_UTF8) {
        out += text;
        return kind != CHANGE_BYTES;
    }
    out.push_back('"');
    for (const char c : text) {
        if (c == '"' || c == '\\')
            out.push_back('\\');
        if (kind == CHANGE_LATIN1)
            change_put_utf8(out, {&c, 1});
        else
            out.push_back(c);
    }
    out.push_back('"');
    return true;
}

static bool put_array(std::string &out, sql_work &work, const sql_table &table,
                      const sql_column &column, const unsigned char *element)
{
    const change_dataset &dataset = *table.dataset;
    const fwu_item &item = dataset.layout.items[column.item];
    work.text = "{";
    for (int32_t i = 0; i < item.count; i++, element += item.size) {
        std::string_view text;
        const change_value kind = change_value_get(text, work.digits, item, dataset.big_endian,
                                                   dataset.encoding, element);
        if (i > 0)
            work.text.push_back(',');
        if (!put_element(work.text, column, kind, text))
            return false;
    }
    work.text.push_back('}');
    if (work.text.find('\0') != std::string::npos)
        return false;
    table.dialect->put_text(out, work.text);
    return true;
}

static bool put_boolean(std::string &out, const sql_table &table, std::string_view text)
{
    const int is = boolean_of(text);
    if (is >= 0)
        out += table.dialect->booleans[is];
    return is >= 0;
}

static bool put_single(std::string &out, sql_work &work, const sql_table &table,
                       const sql_column &column, const unsigned char *element)
{
    const change_dataset &dataset = *table.dataset;
    const fwu_item &item = dataset.layout.items[column.item];
    std::string_view text;
    const change_value kind =
        change_value_get(text, work.digits, item, dataset.big_endian, dataset.encoding, element);
    if (kind == CHANGE_BYTES)
        return false;
    if (column.boolean)
        return put_boolean(out, table, text);
    if (kind != CHANGE_LATIN1 && kind != CHANGE_UTF8) {
        table.dialect->put_number(out, item, kind, text);
        return true;
    }
    if (text.find('\0') != std::string_view::npos)
        return false;
    if (kind == CHANGE_LATIN1) {
        work.text.clear();
        change_put_utf8(work.text, text);
        text = work.text;
    }
    table.dialect->put_text(out, text);
    return true;
}

// A value that the source wrote, which a column of any type takes.
static bool put_whole(std::string &out, const sql_table &table, const sql_column &column,
                      std::string_view whole)
{
    if (!utf8_valid(whole) || whole.find('\0') != std::string_view::npos)
        return false;
    if (column.boolean && table.dataset->layout.items[column.item].count == 1)
        return put_boolean(out, table, whole);
    table.dialect->put_text(out, whole);
    return true;
}

bool sql_put_value(std::string &out, sql_work &work, const sql_table &table,
                   const sql_column &column, const change_row &row, bool trimmed)
{
    const change_dataset &dataset = *table.dataset;
    std::string_view whole;
    switch (change_place_of(whole, dataset, row, column.item)) {
    case CHANGE_NULL:
        out += "NULL";
        return true;
    case CHANGE_WHOLE:
        if (trimmed)
            whole = whole.substr(0, whole.find_last_not_of(' ') + 1);
        return put_whole(out, table, column, whole);
    case CHANGE_IN_IMAGE: {
        const unsigned char *const element = row.image + dataset.offsets[column.item];
        return dataset.layout.items[column.item].count > 1
                   ? put_array(out, work, table, column, element)
                   : put_single(out, work, table, column, element);
    }
    case CHANGE_NOT_KNOWN:
        break;
    }
    return false;
}

// What the bytes of a value that is none are not.
static const char *not_that(const sql_table &table, const sql_column &column, bool has_nul)
{
    if (column.boolean)
        return "boolean";
    const fwu_item &item = table.dataset->layout.items[column.item];
    if (item.type != 'X' && item.type != 'U')
        return "number";
    return has_nul ? "text, having a NUL" : "text, not being UTF-8";
}

std::string sql_no_value(const sql_table &table, const sql_column &column, const change_row &row)
{
    static constexpr char HEX[] = "0123456789ABCDEF";
    constexpr size_t SHOWN = 32;
    const change_dataset &dataset = *table.dataset;
    const fwu_item &item = dataset.layout.items[column.item];
    std::string_view bytes;
    if (change_place_of(bytes, dataset, row, column.item) != CHANGE_WHOLE)
        bytes = {reinterpret_cast<const char *>(row.image) + dataset.offsets[column.item],
                 static_cast<size_t>(item.size) * static_cast<size_t>(item.count)};
    std::string text = table.origin + " item " + item.name + " has bytes that are no " +
                       not_that(table, column, bytes.find('\0') != bytes.npos) + ": 0x";
    for (const char c : bytes.substr(0, SHOWN)) {
        const auto byte = static_cast<unsigned char>(c);
        text.push_back(HEX[byte >> 4]);
        text.push_back(HEX[byte & 0x0F]);
    }
    if (bytes.size() > SHOWN)
        text += "...";
    return text + "; correct the row at the source and go on behind this transaction with --after, "
                  "or leave the dataset out with --dset";
}
