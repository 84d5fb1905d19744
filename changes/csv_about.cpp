// A row for each; what is not known is an empty field.
#include "changes/csv_about.h"

#include "changes/value.h"
#include "fwutil/fwu_time.h"

#include <charconv>

template <typename Number> static void put_number(std::string &out, Number value)
{
    char text[24];
    out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

static void put_position(std::string &out, const fwu_position &position)
{
    if (!change_has(position))
        return;
    put_number(out, position.generation);
    out.push_back('-');
    put_number(out, position.sequence);
    out.push_back('.');
    put_number(out, position.tag);
}

static void put_latin1(std::string &out, std::string_view text)
{
    std::string utf8;
    change_put_utf8(utf8, text);
    change_csv_put_text(out, utf8);
}

// Texts that the log does not tell empty ones of.
static void put_known(std::string &out, std::string_view text)
{
    if (!text.empty())
        change_csv_put_text(out, text);
}

static void put_op(std::string &out, const change &next, const change_transaction &)
{
    out.push_back(static_cast<char>(next.op));
}

static void put_change_position(std::string &out, const change &next, const change_transaction &)
{
    put_position(out, next.position);
}

static void put_record(std::string &out, const change &next, const change_transaction &)
{
    if (next.record != 0)
        put_number(out, next.record);
}

static void put_names(std::string &out, const change &next, std::string fwu_layout::*of_layout,
                      std::string fwu_mark::*of_mark)
{
    const std::string &name =
        next.dataset != nullptr ? next.dataset->layout.*of_layout : next.mark->*of_mark;
    if (!name.empty())
        put_latin1(out, name);
}

static void put_database(std::string &out, const change &next, const change_transaction &)
{
    put_names(out, next, &fwu_layout::dbname, &fwu_mark::dbname);
}

static void put_dataset(std::string &out, const change &next, const change_transaction &)
{
    put_names(out, next, &fwu_layout::dsetname, &fwu_mark::dsetname);
}

static void put_table(std::string &out, const change &next, const change_transaction &)
{
    if (next.dataset != nullptr)
        put_known(out, next.dataset->table);
    else
        put_known(out, change_table_name(next.mark->schema, next.mark->table));
}

static void put_transaction(std::string &out, const change &, const change_transaction &transaction)
{
    put_position(out, transaction.position);
}

static void put_n(std::string &out, const change &next, const change_transaction &)
{
    if (next.n != 0)
        put_number(out, next.n);
}

static void put_xid(std::string &out, const change &, const change_transaction &transaction)
{
    if (change_has(transaction.position))
        put_number(out, transaction.commit.xid);
}

static void put_lsn(std::string &out, const change &, const change_transaction &transaction)
{
    if (change_has(transaction.position))
        out += fwu_lsn_text(transaction.commit.lsn);
}

static void put_commit_us(std::string &out, const change &, const change_transaction &transaction)
{
    if (change_has(transaction.position))
        put_number(out, transaction.commit.time_us);
}

static void put_time(std::string &out, const change &, const change_transaction &transaction)
{
    char text[FWU_TIME_SIZE];
    const int64_t time_us = transaction.commit.time_us;
    if (fwu_time_put(text, fwu_second_of(time_us), fwu_micros_of(time_us)))
        out.append(text, sizeof text);
}

// An entry of the session, as FWU_SESSION_KEYS has them.
template <int entry>
static void put_session(std::string &out, const change &next, const change_transaction &)
{
    if (next.session != nullptr && next.session->entry[entry] != nullptr)
        put_latin1(out, next.session->entry[entry]);
}

static void put_reason(std::string &out, const change &next, const change_transaction &)
{
    if (next.mark != nullptr)
        put_known(out, next.mark->reason);
}

static void add_unknown(std::string &names, std::string_view lead, const change_dataset &dataset,
                        const change_row &row)
{
    std::string_view ignored;
    for (size_t i = 0; row.image != nullptr && i < dataset.layout.items.size(); i++) {
        if (change_place_of(ignored, dataset, row, i) != CHANGE_NOT_KNOWN)
            continue;
        std::string name(lead);
        change_put_utf8(name, dataset.layout.items[i].name);
        names += names.empty() ? "" : ",";
        change_csv_put_text(names, name);
    }
}

// Values that are not known, as --columns names them: an empty field is a null otherwise.
static void put_unknown(std::string &out, const change &next, const change_transaction &)
{
    if (next.dataset == nullptr)
        return;
    std::string names;
    const bool deleted = next.op == CHANGE_DELETE;
    add_unknown(names, "", *next.dataset, deleted ? next.before : next.after);
    add_unknown(names, "before.", *next.dataset, deleted ? change_row{} : next.before);
    put_known(out, names);
}

static constexpr change_csv_about rows[] = {
    {"_op", put_op},
    {"_position", put_change_position},
    {"_record", put_record},
    {"_database", put_database},
    {"_dataset", put_dataset},
    {"_table", put_table},
    {"_transaction", put_transaction},
    {"_n", put_n},
    {"_xid", put_xid},
    {"_lsn", put_lsn},
    {"_commit_us", put_commit_us},
    {"_time", put_time},
    {"_program", put_session<0>},
    {"_user", put_session<1>},
    {"_login", put_session<2>},
    {"_pid", put_session<3>},
    {"_info", put_session<4>},
    {"_reason", put_reason},
    {"_unknown", put_unknown},
};

const change_csv_about *change_csv_about_of(std::string_view name)
{
    for (const change_csv_about &row : rows)
        if (row.name == name)
            return &row;
    return nullptr;
}

std::string change_csv_about_names()
{
    std::string names;
    for (const change_csv_about &row : rows)
        names += (names.empty() ? "" : ", ") + std::string(row.name);
    return names;
}

// Quoted when it would not come back as it is otherwise; blanks at the ends and control
// characters for readers that take them away.
void change_csv_put_text(std::string &out, std::string_view text)
{
    bool quoted = text.empty() || text.front() == ' ' || text.back() == ' ';
    for (const char c : text)
        quoted = quoted || c == ',' || c == '"' || (c >= 0 && c < ' ');
    if (!quoted) {
        out += text;
        return;
    }
    out.push_back('"');
    for (const char c : text) {
        if (c == '"')
            out.push_back('"');
        out.push_back(c);
    }
    out.push_back('"');
}
