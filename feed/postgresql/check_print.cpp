// The check's findings for people: what there is, each table with its items, what is missing
// with the SQL to paste, and last whether a run would start.
#include "feed/postgresql/check_report.h"

#include "feed/policy.h"
#include "fwutil/fwu_source_name.h"

#include <algorithm>

// Columns of a table of texts, as wide as the widest of each; the last one has no filling.
using text_row = std::vector<std::string>;

// Characters of UTF-8, for the width of a column.
static size_t characters(const std::string &text)
{
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

static void put_rows(std::string &out, const std::vector<text_row> &rows)
{
    std::vector<size_t> widths;
    for (const text_row &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], characters(row[i]));
    }
    for (const text_row &row : rows) {
        std::string line = " ";
        for (size_t i = 0; i < row.size(); i++)
            line += " " + row[i] + std::string(widths[i] - characters(row[i]), ' ');
        line.resize(line.find_last_not_of(' ') + 1);
        out += line + "\n";
    }
}

static std::string plural(int64_t n, const char *word)
{
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

static std::string scanned_text(const pgk_column &column)
{
    const pgk_scanned &scanned = column.scanned;
    if (!scanned.looked)
        return "";
    std::string text;
    if (scanned.longest >= 0)
        text = "longest " + std::to_string(scanned.longest);
    const struct {
        int64_t rows;
        const char *what;
    } kinds[] = {{scanned.cut, "cut"},
                 {scanned.replaced, "with characters replaced"},
                 {scanned.left_out, "left out"},
                 {scanned.nulls, "null without a null map"}};
    for (const auto &kind : kinds)
        if (kind.rows != 0)
            text += (text.empty() ? "" : ", ") + plural(kind.rows, "row") + " " + kind.what;
    return text;
}

static void put_table(std::string &out, const pgk_table &table)
{
    out += "\n" + table.name;
    if (table.skipped) {
        out += table.relation.columns.empty()
                   ? ": has no columns that the server sends, passed over\n"
                   : ": left out by the configuration\n";
        return;
    }
    if (table.fed == nullptr) {
        out += ": will be set aside: " + table.refused + "\n";
        return;
    }
    const fwu_layout &layout = table.fed->layout;
    out += " -> " + layout.dbname + "." + layout.dsetname + ": image of " +
           plural(table.fed->image_length, "byte") + ", the record of an update up to " +
           std::to_string(pgk_record_length(table)) + " of " + std::to_string(PGK_RECORD_MAX) +
           (table.described ? ", items by the configuration" : "") + "\n";
    std::vector<text_row> rows;
    for (const pgk_column &column : table.columns) {
        std::string name;
        fwu_source_name_put(name, column.name);
        if (column.item < 0) {
            rows.push_back({name, "-", "", column.type + ": has no item, left out of the log"});
            continue;
        }
        const fwu_item &item = layout.items[static_cast<size_t>(column.item)];
        rows.push_back({name, item.name, pgk_item_text(item), column.why, scanned_text(column)});
    }
    put_rows(out, rows);
    if (!table.not_scanned.empty())
        out += "  not scanned: " + table.not_scanned + "\n";
    else if (table.rows >= 0)
        out += "  scanned: " + plural(table.rows, "row") + "\n";
}

// A statement may have several lines.
static void put_indented(std::string &out, const std::string &text)
{
    out += "     ";
    for (const char c : text)
        out += c == '\n' ? std::string("\n     ") : std::string(1, c);
    out += "\n";
}

static void put_findings(std::string &out, const pgk_report &report, bool stops, const char *title)
{
    int number = 0;
    for (const pgk_finding &finding : report.findings) {
        if (finding.stops != stops)
            continue;
        if (number == 0)
            out += std::string("\n") + title + "\n";
        out += "\n" + std::to_string(++number) + ". " + finding.text + "\n";
        for (const auto *lines : {&finding.sql, &finding.lines, &finding.notes})
            for (const std::string &line : *lines)
                put_indented(out, line);
    }
}

std::string pgk_text(const pgk_report &report)
{
    const pgk_server &found = report.found;
    const pgs_server &server = report.server;
    const auto state = [&](const std::string &name, bool is_there) {
        return name + (is_there                ? ""
                       : report.options.create ? ": is not there, a start makes it"
                                               : ": is not there");
    };
    const fwu_config &config = report.config;
    std::string out;
    put_rows(out,
             {{"server", "PostgreSQL " + found.version + ", database " + found.database +
                             ", role " + found.role},
              {"publication", state(server.publication, found.publication)},
              {"slot", state(server.slot, found.slot)},
              {"log", config.log_directory + ": texts in " + pgk_encoding_word(report.encoding) +
                          ", values that do not fit: " + pgk_policy_word(pgk_policy(report))},
              {"tables", std::to_string(report.tables.size())}});
    for (const pgk_table &table : report.tables)
        put_table(out, table);
    put_findings(out, report, true, "What stops a run:");
    put_findings(out, report, false, "What to know:");
    const auto stops = std::count_if(report.findings.begin(), report.findings.end(),
                                     [](const pgk_finding &finding) { return finding.stops; });
    const bool aside = std::any_of(report.findings.begin(), report.findings.end(),
                                   [](const pgk_finding &finding) { return finding.aside; });
    if (stops != 0)
        out += "\nA run would not start: " + plural(stops, "thing") +
               (stops == 1 ? " is" : " are") + " in its way.\n";
    else
        out += aside ? "\nA run would start, with tables set aside.\n"
                     : "\nA run would start and take everything.\n";
    return out;
}
