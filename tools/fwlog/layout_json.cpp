// The layout of capture records for programs: all that is needed to take records apart.
#include "changes/json_value.h"
#include "tools/fwlog/layout_text.h"
#include "util/json_text.h"

static void put_member(std::string &out, const char *name)
{
    if (out.back() != '{')
        out += ",";
    out += std::string("\"") + name + "\":";
}

static void put(std::string &out, const char *name, std::string_view text)
{
    put_member(out, name);
    json_text_append(out, text);
}

// A name of the log, which is ISO 8859-1.
static void put_name(std::string &out, const char *name, std::string_view latin1)
{
    put_member(out, name);
    change_json_text(out, latin1);
}

static void put(std::string &out, const char *name, const char *text)
{
    put(out, name, std::string_view(text));
}

static void put(std::string &out, const char *name, int64_t number)
{
    put_member(out, name);
    out += std::to_string(number);
}

static void put(std::string &out, const char *name, bool value)
{
    put_member(out, name);
    out += value ? "true" : "false";
}

static void put_null(std::string &out, const char *name)
{
    put_member(out, name);
    out += "null";
}

static void put_options(std::string &out, const record_options &options)
{
    static constexpr struct {
        const char *name;
        bool record_options::*given;
    } flags[] = {{"exthdr", &record_options::exthdr}, {"yyyy", &record_options::yyyy},
                 {"recnum", &record_options::recnum}, {"fga", &record_options::fga},
                 {"ascii", &record_options::ascii},   {"asciirev", &record_options::asciirev},
                 {"dirty", &record_options::dirty},   {"bwfmt", &record_options::bwfmt}};
    put_member(out, "options");
    out += "{";
    for (const auto &flag : flags)
        put(out, flag.name, options.*flag.given);
    out += "}";
}

static void put_header(std::string &out, const record_layout &record)
{
    put_member(out, "header");
    const char *separator = "[";
    for (const record_header_item &item : record.header) {
        out += std::string(separator) + "{";
        put(out, "name", item.name);
        put(out, "offset", item.offset);
        put(out, "width", item.width);
        out += "}";
        separator = ",";
    }
    out += "]";
}

static void put_source(std::string &out, const record_layout &record, const record_item &item)
{
    if (item.column == nullptr) {
        put_null(out, "column");
        put_null(out, "source_type");
    } else {
        put(out, "column", item.column->name);
        if (item.column->type.empty())
            put_null(out, "source_type");
        else
            put(out, "source_type", item.column->type);
    }
    int64_t place = 0;
    const std::vector<int> &key = record.dataset->key;
    for (size_t i = 0; i < key.size(); i++)
        if (static_cast<size_t>(key[i]) == item.index)
            place = static_cast<int64_t>(i) + 1;
    if (place == 0)
        put_null(out, "key");
    else
        put(out, "key", place);
}

static void put_item(std::string &out, const record_layout &record, const record_item &item)
{
    const change_dataset &dataset = *record.dataset;
    const char type = static_cast<char>(item.item->type);
    out += "{";
    put_name(out, "name", item.item->name);
    put_name(out, "type", std::string_view(&type, 1));
    put(out, "size", int64_t{item.item->size});
    put(out, "count", int64_t{item.item->count});
    put(out, "scale", int64_t{item.item->item_aux});
    put_source(out, record, item);
    put(out, "null_map", static_cast<int>(item.index) == dataset.null_map);
    if (dataset.null_flag[item.index] == CHANGE_NO_ITEM)
        put_null(out, "null_flag");
    else
        put(out, "null_flag", int64_t{dataset.null_flag[item.index]});
    put(out, "image_offset", item.image_offset);
    put(out, "first", item.offset + 1);
    put(out, "last", item.offset + item.width * item.item->count);
    put(out, "width", item.width);
    put(out, "picture", item.picture);
    put(out, "usage", item.usage);
    out += "}";
}

void layout_put_json(std::string &out, const record_layout &record)
{
    const change_dataset &dataset = *record.dataset;
    out += "{";
    put_name(out, "database", dataset.layout.dbname);
    put_name(out, "dataset", dataset.layout.dsetname);
    if (dataset.table.empty())
        put_null(out, "table");
    else
        put(out, "table", dataset.table);
    put(out, "position", fwu_position_text(dataset.begun));
    put(out, "form", record.options.ascii ? "text" : "message");
    put(out, "byte_order", record.order);
    put(out, "text_encoding", fwu_encoding_name(dataset.encoding));
    put_options(out, record.options);
    if (record.options.progterm == nullptr)
        put_null(out, "progterm");
    else
        put(out, "progterm", record.options.progterm);
    put_header(out, record);
    put(out, "header_length", record.header_length);
    put_member(out, "items");
    const char *separator = "[";
    for (const record_item &item : record.items) {
        out += separator;
        put_item(out, record, item);
        separator = ",";
    }
    out += record.items.empty() ? "[]" : "]";
    put(out, "image_length", dataset.image_length);
    put(out, "row_length", record.row_length);
    put_member(out, "record_lengths");
    out += "{";
    put(out, "IP", record.one_length);
    put(out, "IU", record.two_length);
    put(out, "ID", record.one_length);
    out += "}}\n";
}
