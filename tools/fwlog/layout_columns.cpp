// The layout of capture records as a table: a line for each item of the header and each
// element of the image's items.
#include "tools/fwlog/dump_value.h"
#include "tools/fwlog/layout_text.h"

#include <cinttypes>
#include <cstdio>

static void put_line(std::string &out, int64_t offset, int64_t width, const std::string &picture,
                     int32_t scale, const std::string &name)
{
    char numbers[64];
    snprintf(numbers, sizeof numbers, "%8" PRId64 " %8" PRId64 " %6" PRId64 "  ", offset + 1,
             offset + width, width);
    char places[16];
    snprintf(places, sizeof places, "%5" PRId32 "  ", scale);
    constexpr size_t PICTURE_WIDTH = 36;
    out += numbers + picture;
    out.append(picture.size() < PICTURE_WIDTH ? PICTURE_WIDTH - picture.size() : 1, ' ');
    out += places + name + "\n";
}

static void put_item(std::string &out, const record_item &item)
{
    std::string name;
    dump_name(name, item.item->name);
    std::string picture = item.picture;
    if (!item.usage.empty())
        picture += (picture.empty() ? "" : " ") + item.usage;
    std::string source;
    if (item.column != nullptr) {
        source = "  (";
        dump_utf8(source, item.column->name);
        if (!item.column->type.empty()) {
            source += " ";
            dump_utf8(source, item.column->type);
        }
        source += ")";
    }
    for (int32_t i = 0; i < item.item->count; i++) {
        const std::string element =
            item.item->count == 1 ? name : name + "[" + std::to_string(i + 1) + "]";
        put_line(out, item.offset + item.width * i, item.width, picture, item.item->item_aux,
                 element + (i == 0 ? source : ""));
    }
}

void layout_put_columns(std::string &out, const record_layout &record)
{
    const change_dataset &dataset = *record.dataset;
    out += record.name;
    if (!dataset.table.empty()) {
        out += ", table ";
        dump_utf8(out, dataset.table);
    }
    out += ", layout of " + fwu_position_text(dataset.begun) +
           (dataset.encoding == FWU_UTF8 ? ", texts in UTF-8" : "") + "\n";
    if (record.options.ascii)
        out += "line of a text capture file, " + record.options_text + "\n";
    else
        out += std::string("record of a message capture file, ") + record.order + "-endian" +
               (record.options_text.empty() ? "" : ", ") + record.options_text + "\n";
    out += "IP, ID: " + std::to_string(record.one_length) + " bytes, one row\n";
    out += "IU: " + std::to_string(record.two_length) +
           " bytes, the old row and the new one behind it, " + std::to_string(record.row_length) +
           " further on\n\n";
    out += "   first     last  width  picture                             scale  item\n";
    for (const record_header_item &item : record.header)
        put_line(out, item.offset, item.width,
                 (item.digits ? "9(" : "X(") + std::to_string(item.width) + ")", 0,
                 std::string(item.name) + "  (" + item.content + ")");
    for (const record_item &item : record.items)
        put_item(out, item);
}
