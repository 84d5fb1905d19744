// A value's literal takes the type of its column: numbers are never written as something that
// would be rounded on the way.
#include "changes/sql_literal.h"

#include "changes/sql_dialect.h"
#include "changes/value.h"

#include <algorithm>

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
    if (kind != CHANGE_TEXT) {
        out += text;
        return kind != CHANGE_BYTES;
    }
    out.push_back('"');
    for (const char c : text) {
        if (c == '"' || c == '\\')
            out.push_back('\\');
        change_put_utf8(out, {&c, 1});
    }
    out.push_back('"');
    return true;
}

static bool put_array(std::string &out, sql_work &work, const sql_table &table,
                      const sql_column &column, const unsigned char *element)
{
    const fwu_item &item = table.dataset->layout.items[column.item];
    work.text = "{";
    for (int32_t i = 0; i < item.count; i++, element += item.size) {
        std::string_view text;
        const change_value kind =
            change_value_get(text, work.digits, item, table.dataset->big_endian, element);
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

bool sql_put_value(std::string &out, sql_work &work, const sql_table &table,
                   const sql_column &column, const unsigned char *image)
{
    const change_dataset &dataset = *table.dataset;
    if (change_is_null(dataset, image, column.item)) {
        out += "NULL";
        return true;
    }
    const unsigned char *const element = image + dataset.offsets[column.item];
    const fwu_item &item = dataset.layout.items[column.item];
    if (item.count > 1)
        return put_array(out, work, table, column, element);
    std::string_view text;
    const change_value kind =
        change_value_get(text, work.digits, item, dataset.big_endian, element);
    if (kind == CHANGE_BYTES)
        return false;
    if (column.boolean) {
        const int is = boolean_of(text);
        if (is >= 0)
            out += table.dialect->booleans[is];
        return is >= 0;
    }
    if (kind != CHANGE_TEXT) {
        table.dialect->put_number(out, item, kind, text);
        return true;
    }
    if (text.find('\0') != std::string_view::npos)
        return false;
    work.text.clear();
    change_put_utf8(work.text, text);
    table.dialect->put_text(out, work.text);
    return true;
}

std::string sql_no_value(const sql_table &table, const sql_column &column,
                         const unsigned char *image)
{
    static constexpr char HEX[] = "0123456789ABCDEF";
    constexpr int64_t SHOWN = 32;
    const change_dataset &dataset = *table.dataset;
    const fwu_item &item = dataset.layout.items[column.item];
    const unsigned char *const bytes = image + dataset.offsets[column.item];
    const int64_t length = int64_t{item.size} * item.count;
    std::string text = table.origin + " item " + item.name + " has bytes that are no ";
    text += column.boolean                         ? "boolean"
            : item.type == 'X' || item.type == 'U' ? "text, having a NUL"
                                                   : "number";
    text += ": 0x";
    for (int64_t i = 0; i < std::min(length, SHOWN); i++) {
        text.push_back(HEX[bytes[i] >> 4]);
        text.push_back(HEX[bytes[i] & 0x0F]);
    }
    if (length > SHOWN)
        text += "...";
    return text + "; correct the row at the source and go on behind this transaction with --after, "
                  "or leave the dataset out with --dset";
}
