// What the lines of a dataset, a session and a transaction have in common is made once, and
// kept until another one comes.
#include "changes/json.h"

#include "fwutil/fwu_time.h"
#include "util/json_text.h"

#include <algorithm>
#include <charconv>
#include <unordered_map>

// A dataset's layout made ready.
struct json_dataset {
    std::vector<change_json_item> items;
    std::string source;                     // members of "source" that name it
    const change_dataset **given = nullptr; // whose layout was given last of this dataset
};

// Entries of a session, as FWU_SESSION_KEYS has them, that are told, and under which names.
struct json_session_entry {
    int entry;
    std::string_view lead;
};
static constexpr json_session_entry SESSION[] = {
    {0, R"(,"program":)"}, {1, R"(,"user":)"}, {2, R"(,"login":)"}, {3, R"(,"pid":)"}};
constexpr int SESSION_PID = 3;

struct change_json::parts {
    std::unordered_map<const change_dataset *, json_dataset> datasets;
    std::unordered_map<std::string, const change_dataset *> given; // by database, NUL, dataset
    const change_dataset *last = nullptr;                          // and what was made of it
    json_dataset *last_made = nullptr;

    std::string session[std::size(SESSION)]; // texts of the one in hand, with their NUL
    bool has[std::size(SESSION)] = {};
    std::string session_text; // members of "source"; empty: none was made yet

    fwu_commit commit;
    fwu_position position;
    std::string commit_text;      // members of "source"
    std::string transaction_text; // up to the value of "n"; of one not known to the line's end
    std::string end_text;         // what stands behind the value of "last"

    int32_t generation = 0; // of the last position
    int32_t sequence = 0;
    std::string file_text; // "1-25."

    bool open = false; // the end of a line is held back
    std::string work;
};

change_json::change_json(change_json_options given) : options(given), own(std::make_unique<parts>())
{
}

change_json::~change_json() = default;

template <typename Number> static void put_number(std::string &out, Number value)
{
    char text[24];
    out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

// Text in UTF-8, or null for none.
static void put_utf8(std::string &out, const std::string &text)
{
    if (text.empty())
        out += "null";
    else
        json_text_append(out, text);
}

static void put_name(std::string &out, const std::string &latin1)
{
    if (latin1.empty())
        out += "null";
    else
        change_json_text(out, latin1);
}

static void put_names(std::string &out, const std::string &database, const std::string &dataset,
                      const std::string &table)
{
    out += R"("database":)";
    put_name(out, database);
    out += R"(,"dataset":)";
    put_name(out, dataset);
    out += R"(,"table":)";
    put_utf8(out, table);
}

static json_dataset &find_dataset(change_json &json, const change_dataset &dataset)
{
    change_json::parts &own = *json.own;
    if (own.last == &dataset)
        return *own.last_made;
    const auto [found, fresh] = own.datasets.try_emplace(&dataset);
    json_dataset &made = found->second;
    if (fresh) {
        const fwu_layout &layout = dataset.layout;
        made.items = change_json_items(dataset, json.options);
        put_names(made.source, layout.dbname, layout.dsetname, dataset.table);
        made.given = &own.given[layout.dbname + '\0' + layout.dsetname];
    }
    own.last = &dataset;
    own.last_made = &made;
    return made;
}

static void put_position(change_json::parts &own, std::string &out, const fwu_position &position)
{
    if (position.generation != own.generation || position.sequence != own.sequence) {
        own.generation = position.generation;
        own.sequence = position.sequence;
        own.file_text = fwu_position_text(position);
        own.file_text.erase(own.file_text.rfind('.') + 1);
    }
    out += own.file_text;
    put_number(out, position.tag);
}

static void put_item(std::string &out, const change_dataset &dataset, size_t i)
{
    const fwu_item &item = dataset.layout.items[i];
    const fwu_source_column *column =
        dataset.column[i] == CHANGE_NO_ITEM
            ? nullptr
            : &dataset.layout.source->columns[static_cast<size_t>(dataset.column[i])];
    const char type = static_cast<char>(item.type);
    out += R"({"name":)";
    change_json_text(out, item.name);
    out += R"(,"type":)";
    change_json_text(out, {&type, 1});
    out += R"(,"size":)";
    put_number(out, item.size);
    out += R"(,"count":)";
    put_number(out, item.count);
    out += R"(,"scale":)";
    put_number(out, item.item_aux);
    out += R"(,"column":)";
    put_utf8(out, column == nullptr ? std::string() : column->name);
    out += R"(,"source_type":)";
    put_utf8(out, column == nullptr ? std::string() : column->type);
    out += R"(,"key":)";
    const auto key = std::find(dataset.key.begin(), dataset.key.end(), static_cast<int>(i));
    if (key == dataset.key.end())
        out += "null";
    else
        put_number(out, key - dataset.key.begin() + 1);
    out += R"(,"nullable":)";
    out += dataset.null_flag[i] == CHANGE_NO_ITEM ? "false}" : "true}";
}

// The line of a layout.
static void put_schema(change_json::parts &own, std::string &out, const change_dataset &dataset,
                       const json_dataset &made)
{
    const std::vector<fwu_item> &items = dataset.layout.items;
    out += R"({"schema":{)";
    out += made.source;
    out += R"(,"position":")";
    put_position(own, out, dataset.begun);
    out += R"(","items":[)";
    bool first = true;
    for (size_t i = 0; i < items.size(); i++) {
        if (static_cast<int>(i) == dataset.null_map)
            continue;
        if (!first)
            out += ',';
        first = false;
        put_item(out, dataset, i);
    }
    out += R"(],"key":[)";
    for (size_t i = 0; i < dataset.key.size(); i++) {
        if (i > 0)
            out += ',';
        change_json_text(out, items[static_cast<size_t>(dataset.key[i])].name);
    }
    out += R"(],"null_map":)";
    if (dataset.null_map == CHANGE_NO_ITEM)
        out += "null";
    else
        change_json_text(out, items[static_cast<size_t>(dataset.null_map)].name);
    out += "}}\n";
}

// Gives the layout's line unless that of the same one was given last of this dataset.
static void give_schema(change_json::parts &own, std::string &out, const change_dataset &dataset,
                        const json_dataset &made)
{
    const change_dataset *before = *made.given;
    if (before == &dataset)
        return;
    *made.given = &dataset;
    if (before == nullptr || before->layout != dataset.layout)
        put_schema(own, out, dataset, made);
}

// Whether the text is one that a number can be written as, and short enough for any reader.
static bool is_plain_number(const std::string &text)
{
    return !text.empty() && text.size() <= 15 &&
           text.find_first_not_of("0123456789") == text.npos &&
           (text.size() == 1 || text[0] != '0');
}

static bool same_session(const change_json::parts &own, const fwu_session_view *session)
{
    for (size_t i = 0; i < std::size(SESSION); i++) {
        const char *text = session == nullptr ? nullptr : session->entry[SESSION[i].entry];
        if (own.has[i] != (text != nullptr) || (text != nullptr && own.session[i] != text))
            return false;
    }
    return true;
}

static void set_session(change_json::parts &own, const fwu_session_view *session)
{
    if (!own.session_text.empty() && same_session(own, session))
        return;
    own.session_text.clear();
    for (size_t i = 0; i < std::size(SESSION); i++) {
        const char *text = session == nullptr ? nullptr : session->entry[SESSION[i].entry];
        own.has[i] = text != nullptr;
        own.session[i] = text == nullptr ? "" : text;
        own.session_text += SESSION[i].lead;
        if (text == nullptr)
            own.session_text += "null";
        else if (i == SESSION_PID && is_plain_number(own.session[i]))
            own.session_text += own.session[i];
        else
            change_json_text(own.session_text, own.session[i]);
    }
}

static bool same_transaction(const change_json::parts &own, const change_transaction &transaction)
{
    const fwu_commit &commit = transaction.commit;
    return !own.end_text.empty() && own.position == transaction.position &&
           own.commit.time_us == commit.time_us && own.commit.xid == commit.xid &&
           own.commit.lsn == commit.lsn;
}

static int64_t milliseconds(int64_t time_us)
{
    return time_us / 1000 - (time_us % 1000 < 0 ? 1 : 0);
}

static void set_transaction(change_json::parts &own, const change_transaction &transaction)
{
    if (same_transaction(own, transaction))
        return;
    own.commit = transaction.commit;
    own.position = transaction.position;
    own.end_text = R"(},"ts_ms":)";
    put_number(own.end_text, milliseconds(own.commit.time_us));
    own.end_text += "}\n";
    if (!change_has(own.position)) {
        own.commit_text = R"(,"xid":null,"lsn":null,"commit_us":null)";
        own.transaction_text = R"(},"transaction":null)" + own.end_text.substr(1);
        return;
    }
    own.commit_text = R"(,"xid":)";
    put_number(own.commit_text, own.commit.xid);
    own.commit_text += R"(,"lsn":")" + fwu_lsn_text(own.commit.lsn) + R"(","commit_us":)";
    put_number(own.commit_text, own.commit.time_us);
    own.transaction_text = R"(},"transaction":{"id":")";
    put_position(own, own.transaction_text, own.position);
    own.transaction_text += R"(","n":)";
}

static void put_row(change_json::parts &own, std::string &out, const change &next,
                    const json_dataset *made, const change_row &row)
{
    if (row.image == nullptr || made == nullptr)
        out += "null";
    else
        change_json_row(out, own.work, made->items, *next.dataset, row);
}

static std::string table_of(const change &next)
{
    const fwu_mark &mark = *next.mark;
    if (mark.table.empty())
        return next.dataset == nullptr ? "" : next.dataset->table;
    return change_table_name(mark.schema, mark.table);
}

// What a mark has beside the members of a change.
static void put_mark(std::string &out, const change &next)
{
    out += next.op == CHANGE_TRUNCATE ? R"(,"truncate":{"reason":)" : R"(,"gap":{"reason":)";
    put_utf8(out, next.mark->reason);
    out += '}';
}

void change_json_put(change_json &json, std::string &out, const change &next,
                     const change_transaction &transaction)
{
    change_json::parts &own = *json.own;
    change_json_end(json, out, false);
    json_dataset *made = nullptr;
    if (next.mark == nullptr) {
        made = &find_dataset(json, *next.dataset);
        give_schema(own, out, *next.dataset, *made);
    }
    set_session(own, next.session);
    set_transaction(own, transaction);

    out += R"({"op":")";
    out += static_cast<char>(next.op);
    out += R"(","before":)";
    put_row(own, out, next, made, next.before);
    out += R"(,"after":)";
    put_row(own, out, next, made, next.after);
    if (next.mark != nullptr)
        put_mark(out, next);
    out += R"(,"source":{)";
    if (made != nullptr)
        out += made->source;
    else
        put_names(out, next.mark->dbname, next.mark->dsetname, table_of(next));
    if (change_has(next.position)) {
        out += R"(,"position":")";
        put_position(own, out, next.position);
        out += R"(","record":)";
    } else {
        out += R"(,"position":null,"record":)";
    }
    if (next.record == 0)
        out += "null";
    else
        put_number(out, next.record);
    out += own.commit_text;
    out += own.session_text;
    out += own.transaction_text;
    if (!change_has(transaction.position))
        return;
    put_number(out, next.n);
    out += R"(,"last":)";
    own.open = true;
}

void change_json_end(change_json &json, std::string &out, bool last)
{
    change_json::parts &own = *json.own;
    if (!own.open)
        return;
    out += last ? "true" : "false";
    out += own.end_text;
    own.open = false;
}
