// Layouts belong to the file in which they stand.  A dataset that has the same layout in the
// next file stays the same object, so that what was made of it holds.
#include "changes/reader.h"

#include "changes/dataset.h"
#include "changes/values.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_layout_check.h"
#include "fwutil/fwu_place.h"
#include "fwutil/fwutil.h"

#include <string_view>
#include <tuple>
#include <utility>

// A dataset in the file in hand.
struct file_dataset {
    fwu_layout layout;
    fwu_position begun;
    bool wanted = false;
    const change_dataset *made = nullptr; // null: no change of it yet
};

struct change_reader::parts {
    fwu_writing said;
    std::unordered_map<std::string, file_dataset> in_file;
    std::unordered_map<std::string, std::vector<std::unique_ptr<change_dataset>>> made;
    std::string key; // scratch for the maps' keys
    file_dataset *last = nullptr;

    fwu_position start; // that the log must reach; sequence 0: it has
    std::string start_text;

    bool inside = false;   // a transaction is in hand
    bool given = false;    // ... and a change of it was
    int32_t pass_over = 0; // its entries up to this tag are not wanted
    uint64_t n = 0;
    std::vector<unsigned char> session_bytes; // what the session points into
    fwu_session_view session;
    bool has_session = false;
    bool snapshot = false; // its changes are rows of a snapshot
    fwu_mark mark;
    change_values values; // that stand before the change to come
};

change_reader::change_reader() : own(std::make_unique<parts>())
{
}

change_reader::~change_reader()
{
    change_close(*this);
}

void change_close(change_reader &reader)
{
    fwu_cursor_close(reader.log.cursor);
}

static change_found damaged(const change_reader &reader, const fwu_entry &entry, const char *reason)
{
    const fwu_cursor &cursor = reader.log.cursor;
    const auto length = static_cast<int64_t>(fwu_entry_padded(entry.length));
    fwu_log_damage(cursor.file, {.at = cursor.read_at - length, .reason = reason});
    return CHANGE_FAILED;
}

int change_open(change_reader &reader, const fwu_config &config, change_range range)
{
    change_reader::parts &own = *reader.own;
    own.said = config;
    reader.range = std::move(range);
    reader.log.directory = config.log_directory;
    const bool after = reader.range.after.sequence != 0;
    fwu_position &start = after ? reader.range.after : reader.range.from;
    if (start.sequence == 0)
        return 0;
    own.start_text = (after ? "--after " : "--from ") + fwu_position_text(start);
    std::vector<fwu_log_file> files;
    const fwu_log_file *file = nullptr;
    if (fwu_log_list(reader.log.directory, files) != 0 ||
        fwu_start_find(files, start, own.start_text, file) != 0)
        return -1;
    if (start.tag != 0)
        own.start = start;
    return fwu_cursor_open(reader.log.cursor, *file);
}

static void set_key(std::string &key, std::string_view dbname, std::string_view dsetname)
{
    key = dbname;
    key += '\0';
    key += dsetname;
}

static bool is_wanted(const change_reader &reader, const std::string &dbname,
                      const std::string &dsetname)
{
    return !reader.range.dataset || reader.range.dataset(dbname, dsetname);
}

static fwu_position position_of(const change_reader &reader, int32_t tag)
{
    const fwu_log_file &file = reader.log.cursor.file;
    return {file.generation, file.sequence, tag};
}

// Null, or what is wrong with the entry.
static const char *take_layout(change_reader &reader, const fwu_entry &entry)
{
    change_reader::parts &own = *reader.own;
    fwu_layout layout;
    if (!fwu_entry_layout(entry, layout))
        return FWU_MALFORMED;
    set_key(own.key, layout.dbname, layout.dsetname);
    const auto [found, fresh] = own.in_file.try_emplace(own.key);
    file_dataset &dataset = found->second;
    if (fresh)
        dataset.wanted = is_wanted(reader, layout.dbname, layout.dsetname);
    dataset.layout = std::move(layout);
    dataset.begun = position_of(reader, entry.tag);
    dataset.made = nullptr;
    return nullptr;
}

static const char *take_source(change_reader &reader, const fwu_entry &entry)
{
    change_reader::parts &own = *reader.own;
    fwu_layout_source of;
    if (!fwu_entry_source(entry, of))
        return FWU_MALFORMED;
    set_key(own.key, of.dbname, of.dsetname);
    const auto found = own.in_file.find(own.key);
    if (found == own.in_file.end() ||
        !fwu_source_fits(of.source, found->second.layout.items.size()))
        return FWU_MALFORMED;
    found->second.layout.source = std::make_shared<const fwu_source>(std::move(of.source));
    found->second.made = nullptr;
    return nullptr;
}

static const char *take_session(change_reader::parts &own, const fwu_entry &entry)
{
    own.session_bytes.assign(entry.payload, entry.payload + entry.payload_length);
    fwu_entry kept = entry;
    kept.payload = own.session_bytes.data();
    if (!fwu_entry_session(kept, own.session))
        return FWU_MALFORMED;
    own.has_session = true;
    // What a client says of itself stands in front of what the bridge adds.
    own.snapshot = !own.session.data.empty() &&
                   std::string_view(own.session.data.back()).starts_with("snapshot=");
    return nullptr;
}

// The dataset of a change; null: no layout of it stands before.
static file_dataset *find_dataset(change_reader::parts &own, const char *dbname,
                                  const char *dsetname)
{
    if (own.last != nullptr && own.last->layout.dsetname == dsetname &&
        own.last->layout.dbname == dbname)
        return own.last;
    set_key(own.key, dbname, dsetname);
    const auto found = own.in_file.find(own.key);
    return found == own.in_file.end() ? nullptr : own.last = &found->second;
}

static const change_dataset *make_dataset(change_reader &reader, const file_dataset &from)
{
    change_reader::parts &own = *reader.own;
    const fwu_file_header &file = reader.log.cursor.header;
    set_key(own.key, from.layout.dbname, from.layout.dsetname);
    auto &known = own.made[own.key];
    for (const auto &dataset : known)
        if (dataset->big_endian == file.big_endian && dataset->encoding == file.encoding &&
            dataset->layout == from.layout)
            return dataset.get();
    auto dataset = std::make_unique<change_dataset>();
    dataset->layout = from.layout;
    dataset->big_endian = file.big_endian;
    dataset->encoding = file.encoding;
    dataset->begun = from.begun;
    change_dataset_complete(*dataset, own.said);
    return known.emplace_back(std::move(dataset)).get();
}

static change_op op_of(const change_reader::parts &own, int32_t opcode)
{
    if (opcode == FWU_OP_INSERT)
        return own.snapshot ? CHANGE_READ : CHANGE_CREATE;
    return opcode == FWU_OP_UPDATE ? CHANGE_UPDATE : CHANGE_DELETE;
}

// Whether the entry, which counts as one of the transaction's changes, is inside the range.
static bool is_inside(change_reader &reader, change &next, int32_t tag)
{
    change_reader::parts &own = *reader.own;
    next.n = ++own.n;
    next.position = position_of(reader, tag);
    next.session = own.has_session ? &own.session : nullptr;
    return tag > own.pass_over;
}

// Null, or what is wrong with the entry.  wanted: it is to be given.
static const char *take_change(change_reader &reader, const fwu_entry &entry, change &next,
                               bool &wanted)
{
    change_reader::parts &own = *reader.own;
    fwu_change from;
    if (!fwu_entry_change(entry, from))
        return FWU_MALFORMED;
    wanted = is_inside(reader, next, entry.tag);
    file_dataset *dataset = find_dataset(own, from.dbname, from.dsetname);
    if (dataset == nullptr)
        return FWU_NO_LAYOUT;
    next.before = {from.before, {}};
    next.after = {from.after, {}};
    if (!change_values_give(own.values, dataset->layout.items.size(), next.before, next.after))
        return FWU_MALFORMED;
    wanted = wanted && dataset->wanted;
    if (!wanted)
        return nullptr;
    if (dataset->made == nullptr)
        dataset->made = make_dataset(reader, *dataset);
    if (dataset->made->image_length != from.reclen)
        return FWU_OTHER_LENGTH;
    next.op = op_of(own, from.opcode);
    next.dataset = dataset->made;
    next.record = from.recnum;
    next.mark = nullptr;
    return nullptr;
}

static const char *take_mark(change_reader &reader, const fwu_entry &entry, change &next,
                             bool &wanted)
{
    change_reader::parts &own = *reader.own;
    if (!fwu_entry_mark(entry, own.mark))
        return FWU_MALFORMED;
    const fwu_mark &mark = own.mark;
    const bool named = !mark.dsetname.empty();
    wanted = is_inside(reader, next, entry.tag) &&
             (!named || is_wanted(reader, mark.dbname, mark.dsetname));
    file_dataset *dataset =
        named ? find_dataset(own, mark.dbname.c_str(), mark.dsetname.c_str()) : nullptr;
    if (dataset != nullptr && dataset->made == nullptr && wanted)
        dataset->made = make_dataset(reader, *dataset);
    next.op = mark.kind == FWU_MARK_TRUNCATE ? CHANGE_TRUNCATE : CHANGE_GAP;
    next.dataset = dataset == nullptr ? nullptr : dataset->made;
    next.record = 0;
    next.before = {};
    next.after = {};
    next.mark = &mark;
    return nullptr;
}

static const char *take_value(change_reader::parts &own, const fwu_entry &entry)
{
    fwu_value_piece piece;
    return fwu_entry_value(entry, piece) && change_values_take(own.values, piece) ? nullptr
                                                                                  : FWU_MALFORMED;
}

static const char *take_entry(change_reader &reader, const fwu_entry &entry, change &next,
                              bool &wanted)
{
    wanted = false;
    if (entry.kind != FWU_KIND_VALUE && change_values_wait(reader.own->values) &&
        !fwu_entry_is_change(entry))
        return FWU_MALFORMED; // they belong to nothing
    switch (entry.kind) {
    case FWU_KIND_LAYOUT:
        return take_layout(reader, entry);
    case FWU_KIND_SOURCE:
        return take_source(reader, entry);
    case FWU_KIND_SESSION:
        return take_session(*reader.own, entry);
    case FWU_KIND_MARK:
        return take_mark(reader, entry, next, wanted);
    case FWU_KIND_VALUE:
        return take_value(*reader.own, entry);
    case FWU_KIND_COMMIT:
        return nullptr;
    default:
        return take_change(reader, entry, next, wanted);
    }
}

// Whether an entry stands behind a position, which may name no generation, then it is in each,
// and no tag, then it holds its whole file.
static bool is_behind(const fwu_position &entry, const fwu_position &position)
{
    const int32_t generation = position.generation == 0 ? entry.generation : position.generation;
    const std::tuple file(generation, position.sequence);
    const std::tuple here(entry.generation, entry.sequence);
    return here == file ? position.tag != 0 && entry.tag > position.tag : file < here;
}

// Whether the log is known to have the start position, or may still have it.
static bool has_start(change_reader &reader)
{
    change_reader::parts &own = *reader.own;
    const fwu_log_file &file = reader.log.cursor.file;
    const int32_t last_tag = reader.log.cursor.tx_last_tag;
    const bool same_file =
        file.generation == own.start.generation && file.sequence == own.start.sequence;
    if (same_file && last_tag >= own.start.tag)
        own.start = {};
    return own.start.sequence == 0 || same_file;
}

static change_found no_start(const change_reader &reader)
{
    const change_reader::parts &own = *reader.own;
    fwu_error("%s: its log file ends before it; give a position that the log has",
              own.start_text.c_str());
    return CHANGE_FAILED;
}

// The transaction that the log has found.
static void begin(change_reader &reader)
{
    change_reader::parts &own = *reader.own;
    const fwu_cursor &cursor = reader.log.cursor;
    if (cursor.tx_first_tag == 1) {
        own.in_file.clear();
        own.last = nullptr;
    }
    own.inside = true;
    own.given = false;
    own.n = 0;
    own.has_session = false;
    own.snapshot = false;
    own.pass_over = 0;
    change_values_clear(own.values);
    const fwu_position here = position_of(reader, 0);
    const auto in_file = [&here](const fwu_position &position) {
        return position.sequence == here.sequence && position.generation == here.generation;
    };
    if (in_file(reader.range.after))
        own.pass_over = reader.range.after.tag;
    else if (in_file(reader.range.from))
        own.pass_over = reader.range.from.tag - 1;
    reader.transaction.commit = cursor.commit.commit;
    reader.transaction.position = position_of(reader, cursor.tx_last_tag);
    reader.transaction.identity = cursor.header.identity;
}

// Goes on inside the transaction in hand.
static change_found next_inside(change_reader &reader, change &next)
{
    change_reader::parts &own = *reader.own;
    fwu_entry entry;
    for (;;) {
        const fwu_found found = fwu_log_entry(reader.log, entry);
        if (found == FWU_END) {
            own.inside = false;
            return own.given ? CHANGE_COMMITTED : CHANGE_PASSED;
        }
        if (found != FWU_FOUND)
            return CHANGE_FAILED;
        // A transaction all of whose changes are in the range is whole.
        const bool counts = fwu_entry_is_change(entry) || entry.kind == FWU_KIND_MARK;
        if (counts && reader.range.to.sequence != 0 &&
            is_behind(position_of(reader, entry.tag), reader.range.to))
            return CHANGE_RANGE_ENDED;
        bool wanted = false;
        if (const char *wrong = take_entry(reader, entry, next, wanted); wrong != nullptr)
            return damaged(reader, entry, wrong);
        own.given = own.given || wanted;
        if (wanted)
            return CHANGE_FOUND;
    }
}

change_found change_next(change_reader &reader, change &next)
{
    if (reader.own->inside)
        return next_inside(reader, next);
    switch (fwu_log_next(reader.log)) {
    case FWU_FOUND:
        if (!has_start(reader))
            return no_start(reader);
        begin(reader);
        return next_inside(reader, next);
    case FWU_END:
        return reader.own->start.sequence == 0 ? CHANGE_NO_MORE : no_start(reader);
    default:
        return CHANGE_FAILED;
    }
}
