// The check's findings for programs: one object.
#include "feed/postgresql/check_report.h"
#include "util/json_text.h"

// Appends members and elements; the separator is what stands before.
struct json_writer {
    std::string out;

    void separate()
    {
        if (!out.empty() && out.back() != '{' && out.back() != '[' && out.back() != ':')
            out += ",";
    }
    void name(const char *member)
    {
        separate();
        json_text_append(out, member);
        out += ":";
    }
    void open(char bracket)
    {
        separate();
        out += bracket;
    }
    void close(char bracket)
    {
        out += bracket;
    }
    void text(const char *member, std::string_view value)
    {
        name(member);
        json_text_append(out, value);
    }
    void text_or_null(const char *member, std::string_view value)
    {
        name(member);
        if (value.empty())
            out += "null";
        else
            json_text_append(out, value);
    }
    void number(const char *member, int64_t value)
    {
        name(member);
        out += std::to_string(value);
    }
    void truth(const char *member, bool value)
    {
        name(member);
        out += value ? "true" : "false";
    }
    void texts(const char *member, const std::vector<std::string> &values)
    {
        name(member);
        open('[');
        for (const std::string &value : values) {
            separate();
            json_text_append(out, value);
        }
        close(']');
    }
};

static void put_scanned(json_writer &json, const pgk_scanned &scanned)
{
    json.name("scan");
    if (!scanned.looked) {
        json.out += "null";
        return;
    }
    json.open('{');
    json.name("longest");
    json.out += scanned.longest < 0 ? "null" : std::to_string(scanned.longest);
    json.number("cut", scanned.cut);
    json.number("replaced", scanned.replaced);
    json.number("left_out", scanned.left_out);
    json.number("nulls_without_map", scanned.nulls);
    json.close('}');
}

static void put_column(json_writer &json, const pgk_table &table, const pgk_column &column)
{
    json.open('{');
    json.text("column", column.name);
    json.text_or_null("source_type", column.type);
    if (table.fed == nullptr || column.item < 0) {
        json.text_or_null("item", "");
    } else {
        const fwu_item &item = table.fed->layout.items[static_cast<size_t>(column.item)];
        json.text("item", item.name);
        json.text("type", std::string(1, static_cast<char>(item.type)));
        json.number("size", item.size);
        json.number("count", item.count);
        json.number("scale", item.item_aux);
        json.truth("width_chosen", column.chosen);
    }
    json.text("why", column.why);
    put_scanned(json, column.scanned);
    json.close('}');
}

// On a line of its own.
static void put_table(json_writer &json, const pgk_table &table)
{
    json.separate();
    json.out += "\n{";
    json.text("table", table.name);
    json.text("schema", table.relation.schema);
    json.text("name", table.relation.name);
    json.truth("skipped", table.skipped);
    json.text_or_null("refused", table.refused);
    if (table.fed != nullptr && !table.skipped) {
        const fwu_layout &layout = table.fed->layout;
        json.text("database", layout.dbname);
        json.text("dataset", layout.dsetname);
        json.truth("described", table.described);
        json.number("image_length", table.fed->image_length);
        json.number("record_length", pgk_record_length(table));
        json.truth("fits_message_file", pgk_record_length(table) <= PGK_RECORD_MAX);
    }
    json.name("columns"); // of a table that has a dataset
    json.open('[');
    for (const pgk_column &column : table.columns)
        put_column(json, table, column);
    json.close(']');
    json.name("rows");
    json.out += table.rows < 0 ? "null" : std::to_string(table.rows);
    json.text_or_null("not_scanned", table.not_scanned);
    json.close('}');
}

static void put_finding(json_writer &json, const pgk_finding &finding)
{
    json.open('{');
    json.truth("stops", finding.stops);
    json.truth("aside", finding.aside);
    json.text("kind", finding.kind);
    json.text("text", finding.text);
    json.texts("sql", finding.sql);
    json.texts("configuration", finding.lines);
    json.texts("notes", finding.notes);
    json.close('}');
}

std::string pgk_json(const pgk_report &report)
{
    const pgk_server &found = report.found;
    json_writer json;
    json.open('{');
    json.truth("starts", pgk_starts(report));
    json.text("server", found.version);
    json.text("database", found.database);
    json.text("role", found.role);
    json.truth("superuser", found.superuser);
    json.text("publication", report.server.publication);
    json.truth("publication_exists", found.publication);
    json.text("slot", report.server.slot);
    json.truth("slot_exists", found.slot);
    json.text("log_directory", report.config.log_directory);
    json.text("text_encoding", pgk_encoding_word(report.encoding));
    json.text("values", pgk_policy_word(pgk_policy(report)));
    json.name("findings");
    json.open('[');
    for (const pgk_finding &finding : report.findings)
        put_finding(json, finding);
    json.close(']');
    json.name("tables");
    json.open('[');
    for (const pgk_table &table : report.tables)
        put_table(json, table);
    json.close(']');
    json.close('}');
    return json.out + "\n";
}
