// Which widths a configuration fixes, and what the values found mean for those that there are.
// Columns get room for what they hold and a quarter more; the others share what is left of the
// record as they do without a configuration: all are cut down to one length.
#include "feed/postgresql/catalogue.h"
#include "feed/postgresql/check_report.h"
#include "fwutil/fwu_source_name.h"

#include <algorithm>

constexpr int32_t WIDTH_MIN = 4; // to which a text may shrink
constexpr int32_t WIDTH_STEP = 8;

static const fwu_item &item_of(const pgk_table &table, const pgk_column &column)
{
    return table.fed->layout.items[static_cast<size_t>(column.item)];
}

// Room for the longest value found; 0: the item has it.
static int32_t needed(const pgk_table &table, const pgk_column &column, bool more)
{
    const int64_t longest = column.scanned.longest;
    if (!column.chosen || longest <= item_of(table, column).size)
        return 0;
    const int64_t room =
        more ? (longest + longest / 4 + WIDTH_STEP - 1) / WIDTH_STEP * WIDTH_STEP : longest;
    return static_cast<int32_t>(std::min(room, int64_t{FWU_TEXT_SIZE_MAX}));
}

static int32_t width_with(const pgk_table &table, const pgk_column &column, int32_t cap, bool more)
{
    const int32_t fair = std::min(column.wanted, cap);
    // What is held now without being widened keeps its room as well.
    const auto held = static_cast<int32_t>(
        std::min(column.scanned.longest, int64_t{item_of(table, column).size}));
    return std::max({fair, held, needed(table, column, more)});
}

static int64_t image_with(const pgk_table &table, int32_t cap, bool more)
{
    int64_t length = 0;
    for (const fwu_item &item : table.fed->layout.items)
        length += int64_t{item.size} * item.count;
    for (const pgk_column &column : table.columns)
        if (column.item >= 0 && column.chosen)
            length += width_with(table, column, cap, more) - item_of(table, column).size;
    return length;
}

// Widens the columns that need it.  False: there is no room for that.
static bool widen(pgk_table &table, bool more)
{
    if (image_with(table, WIDTH_MIN, more) > PGC_IMAGE_MAX)
        return false;
    int32_t cap = FWU_TEXT_SIZE_MAX;
    if (image_with(table, cap, more) > PGC_IMAGE_MAX) {
        int32_t fits = WIDTH_MIN;
        while (cap - fits > 1) {
            const int32_t between = fits + (cap - fits) / 2;
            (image_with(table, between, more) <= PGC_IMAGE_MAX ? fits : cap) = between;
        }
        cap = fits;
    }
    for (pgk_column &column : table.columns)
        if (column.item >= 0 && column.chosen)
            column.width = width_with(table, column, cap, more);
    return true;
}

static void choose(pgk_table &table)
{
    const bool some_lack =
        std::any_of(table.columns.begin(), table.columns.end(), [&](const pgk_column &column) {
            return column.item >= 0 && needed(table, column, false) != 0;
        });
    if (some_lack && (widen(table, true) || widen(table, false)))
        return;
    // What its type counts stays with the type, unless it was shrunk.
    for (pgk_column &column : table.columns)
        if (column.item >= 0 && column.chosen &&
            (!column.counted || item_of(table, column).size < column.wanted))
            column.width = item_of(table, column).size;
}

static std::string rows_of(int64_t n, const char *what)
{
    return std::to_string(n) + (n == 1 ? " row " : " rows ") + what;
}

static bool has_line(const pgk_report &report, const pgk_table &table, const pgk_column &column)
{
    for (const fwu_column &said : fwu_columns_of(report.config, table.name))
        if (said.column == column.name)
            return true;
    return false;
}

// A column has one line in the configuration.
static void suggest_width(const pgk_report &report, const pgk_table &table,
                          const pgk_column &column, pgk_finding &finding)
{
    const std::string name =
        fwu_source_name(table.relation.schema, table.relation.name, column.name);
    const std::string width = "width=" + std::to_string(column.width);
    if (has_line(report, table, column))
        finding.notes.push_back(width + " in its line \"column " + name + " ...\" gives it room");
    else
        finding.lines.push_back("column " + name + " " + width);
}

// The first line that says something of a column makes an error of all that does not fit,
// unless marks are asked for.
static void find_policy(pgk_report &report)
{
    const bool any =
        std::any_of(report.findings.begin(), report.findings.end(), [](const pgk_finding &finding) {
            return finding.kind == std::string_view("values") && !finding.lines.empty();
        });
    if (!any || report.config.policy != FWU_POLICY_UNSAID || fwu_writing_describes(report.config))
        return;
    pgk_note(report, "configuration",
             "with a \"column\" line and without this one, once, values that do not fit set their "
             "table aside, and whole old rows of all tables are needed");
    report.findings.back().lines.push_back("values mark");
}

static void find_values(pgk_report &report, const pgk_table &table, const pgk_column &column)
{
    const pgk_scanned &scanned = column.scanned;
    const bool aside = column.policy == FWU_POLICY_ERROR || scanned.nulls != 0;
    const struct {
        int64_t rows;
        const char *marked;
        const char *wrong;
    } kinds[] = {
        {scanned.cut, "would be cut", "too long"},
        {scanned.replaced, "would have characters replaced", "with characters without a place"},
        {scanned.left_out, "would be left out", "that the item cannot hold"},
        {scanned.nulls, "null without a null map", "null without a null map"},
    };
    std::string text;
    for (const auto &kind : kinds)
        if (kind.rows != 0)
            text +=
                (text.empty() ? "" : ", ") + rows_of(kind.rows, aside ? kind.wrong : kind.marked);
    if (text.empty())
        return;
    const fwu_item &item = item_of(table, column);
    const std::string name =
        fwu_source_name(table.relation.schema, table.relation.name, column.name);
    pgk_finding finding = {
        .aside = aside,
        .kind = "values",
        .text = name + ": " + text + ", of " + rows_of(table.rows, "in all") + "; item " +
                item.name + " is " + pgk_item_text(item),
    };
    if (scanned.longest > item.size)
        finding.text += ", the longest value has " + std::to_string(scanned.longest);
    if (aside)
        finding.text += "; such a row sets the table aside";
    if (column.width > item.size)
        suggest_width(report, table, column, finding);
    report.findings.push_back(std::move(finding));
}

void pgk_choose_widths(pgk_report &report)
{
    for (pgk_table &table : report.tables) {
        if (table.fed == nullptr)
            continue;
        choose(table);
        for (const pgk_column &column : table.columns)
            if (column.scanned.looked)
                find_values(report, table, column);
    }
    find_policy(report);
}
