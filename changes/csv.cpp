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

static void put_value(change_csv &csv, std::string &out, const change_csv_column &column,
                      const unsigned char *image)
{
    const change_dataset &dataset = *csv.dataset;
    if (image == nullptr || change_is_null(dataset, image, column.item))
        return;
    std::string_view text;
    switch (change_value_get(text, csv.work, dataset.layout.items[column.item], dataset.big_endian,
                             image + column.offset)) {
    case CHANGE_NUMBER:
    case CHANGE_SPECIAL:
        out += text;
        break;
    case CHANGE_TEXT:
        if (is_plain(text)) {
            out += text;
        } else {
            csv.work.clear();
            change_put_utf8(csv.work, text);
            change_csv_put_text(out, csv.work);
        }
        break;
    case CHANGE_BYTES:
        put_hex(out, text);
        break;
    }
}

void change_csv_put(change_csv &csv, std::string &out, const change &next,
                    const change_transaction &transaction)
{
    const unsigned char *const row = next.op == CHANGE_DELETE ? next.before : next.after;
    bool first = true;
    for (const change_csv_column &column : csv.columns) {
        if (!first)
            out.push_back(',');
        first = false;
        if (column.about != nullptr)
            column.about->put(out, next, transaction);
        else
            put_value(csv, out, column, column.before ? next.before : row);
    }
    out += "\r\n";
}
