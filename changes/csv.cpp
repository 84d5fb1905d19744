// Lines of values.  What a column needs of its item is looked up once for a layout.
#include "changes/csv.h"

#include "changes/csv_about.h"
#include "changes/value.h"

static void put_hex(std::string &out, std::string_view bytes)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    out += "0x";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out.push_back(DIGITS[byte >> 4]);
        out.push_back(DIGITS[byte & 0x0F]);
    }
}

// Whether a text needs no quotes and is the same in UTF-8.
static bool is_plain(std::string_view text)
{
    if (text.empty() || text.front() == ' ')
        return false;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < ' ' || byte >= 0x80 || c == ',' || c == '"')
            return false;
    }
    return true;
}

static void put_value(std::string &out, std::string &work, change_value kind, std::string_view text)
{
    switch (kind) {
    case CHANGE_NUMBER:
    case CHANGE_SPECIAL:
        out += text;
        break;
    case CHANGE_LATIN1:
        if (is_plain(text)) {
            out += text;
        } else {
            work.clear();
            change_put_utf8(work, text);
            change_csv_put_text(out, work);
        }
        break;
    case CHANGE_UTF8:
        change_csv_put_text(out, text);
        break;
    case CHANGE_BYTES:
        put_hex(out, text);
        break;
    }
}

static void put_field(change_csv &csv, std::string &out, const change_csv_column &column,
                      const change_row &row)
{
    if (row.image == nullptr)
        return;
    const change_dataset &dataset = *csv.dataset;
    const fwu_item &item = dataset.layout.items[column.item];
    std::string_view text;
    change_value kind = CHANGE_BYTES;
    switch (change_place_of(text, dataset, row, column.item)) {
    case CHANGE_IN_IMAGE:
        kind = change_value_get(text, csv.work, item, dataset.big_endian, dataset.encoding,
                                row.image + column.offset);
        break;
    case CHANGE_WHOLE: // of all elements: it stands where the first one would
        if (column.offset != dataset.offsets[column.item])
            return;
        kind = change_value_whole(text, item);
        break;
    case CHANGE_NULL:
    case CHANGE_NOT_KNOWN:
        return;
    }
    put_value(out, csv.work, kind, text);
}

void change_csv_put(change_csv &csv, std::string &out, const change &next,
                    const change_transaction &transaction)
{
    const change_row &row = next.op == CHANGE_DELETE ? next.before : next.after;
    bool first = true;
    for (const change_csv_column &column : csv.columns) {
        if (!first)
            out.push_back(',');
        first = false;
        if (column.about != nullptr)
            column.about->put(out, next, transaction);
        else
            put_field(csv, out, column, column.before ? next.before : row);
    }
    out += "\r\n";
}
