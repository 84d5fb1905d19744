// Encoding and decoding of the optional entries: the sources of layouts, and marks.
#include "fwutil/fwu_entry.h"

#include "fwutil/fwu_bytes.h"
#include "fwutil/fwu_entry_payload.h"

constexpr size_t SOURCE_FIXED = 12; // bytes of a source's payload before the names
constexpr size_t COLUMN_FIXED = 8;  // of a column before its texts
constexpr size_t MARK_FIXED = 4;    // of a mark's payload before the names

// A number that is one more than an index, or zero for none.
static bool take_index(const unsigned char *p, int32_t &index)
{
    const uint32_t word = get_le32(p);
    index = word <= INT32_MAX ? static_cast<int32_t>(word) - 1 : -1;
    return word <= INT32_MAX;
}

static void put_index(unsigned char *p, int32_t index)
{
    put_le32(p, static_cast<uint32_t>(index) + 1);
}

static size_t take_number(std::string_view &rest, size_t width)
{
    const auto *p = reinterpret_cast<const unsigned char *>(rest.data());
    const size_t number = width == 2 ? get_le16(p) : get_le32(p);
    rest.remove_prefix(width);
    return number;
}

// A text behind its length, which has so many bytes.
static bool take_text(std::string_view &rest, size_t width, std::string &text)
{
    if (rest.size() < width)
        return false;
    const size_t length = take_number(rest, width);
    const char *const begin = fwu_payload_take_text(rest, length);
    if (begin != nullptr)
        text.assign(begin, length);
    return begin != nullptr;
}

static unsigned char *put_text(unsigned char *p, size_t width, const std::string &text)
{
    if (width == 2)
        put_le16(p, static_cast<uint16_t>(text.size()));
    else
        put_le32(p, static_cast<uint32_t>(text.size()));
    return fwu_payload_put_text(p + width, text);
}

// The names of a dataset, whose lengths were checked.
static bool take_names(std::string_view &rest, const unsigned char *lengths, std::string &dbname,
                       std::string &dsetname)
{
    const char *const database = fwu_payload_take_text(rest, lengths[0]);
    const char *const dataset =
        database != nullptr ? fwu_payload_take_text(rest, lengths[1]) : nullptr;
    if (dataset == nullptr)
        return false;
    dbname = database;
    dsetname = dataset;
    return true;
}

static bool take_column(std::string_view &rest, fwu_source_column &column)
{
    if (rest.size() < COLUMN_FIXED)
        return false;
    const auto *const p = reinterpret_cast<const unsigned char *>(rest.data());
    const uint32_t key = get_le32(p + 4);
    if (!take_index(p, column.item) || key > INT32_MAX)
        return false;
    column.key = static_cast<int32_t>(key);
    rest.remove_prefix(COLUMN_FIXED);
    return take_text(rest, 2, column.name) && take_text(rest, 2, column.type) &&
           !column.name.empty();
}

bool fwu_entry_source(const fwu_entry &entry, fwu_layout_source &of)
{
    std::string_view rest = fwu_entry_payload(entry);
    const unsigned char *const p = entry.payload;
    fwu_source &source = of.source;
    if (entry.kind != FWU_KIND_SOURCE || rest.size() < SOURCE_FIXED || get_le16(p + 2) != 0 ||
        !fwu_payload_name_ok(p[0]) || !fwu_payload_name_ok(p[1]) ||
        !take_index(p + 8, source.null_map))
        return false;
    uint32_t columns = get_le32(p + 4);
    rest.remove_prefix(SOURCE_FIXED);
    if (!take_names(rest, p, of.dbname, of.dsetname) || !take_text(rest, 2, source.schema) ||
        !take_text(rest, 2, source.table) || source.table.empty())
        return false;
    source.columns.clear();
    for (; columns > 0; columns--) {
        fwu_source_column column;
        if (!take_column(rest, column))
            return false;
        source.columns.push_back(std::move(column));
    }
    return rest.empty();
}

bool fwu_entry_mark(const fwu_entry &entry, fwu_mark &mark)
{
    std::string_view rest = fwu_entry_payload(entry);
    const unsigned char *const p = entry.payload;
    if (entry.kind != FWU_KIND_MARK || rest.size() < MARK_FIXED ||
        (p[0] != FWU_MARK_TRUNCATE && p[0] != FWU_MARK_GAP) || p[3] != 0)
        return false;
    const bool named = fwu_payload_name_ok(p[1]) && fwu_payload_name_ok(p[2]);
    if (!named && (p[1] != 0 || p[2] != 0))
        return false;
    mark.kind = p[0] == FWU_MARK_TRUNCATE ? FWU_MARK_TRUNCATE : FWU_MARK_GAP;
    rest.remove_prefix(MARK_FIXED);
    return take_names(rest, p + 1, mark.dbname, mark.dsetname) && take_text(rest, 4, mark.schema) &&
           take_text(rest, 4, mark.table) && take_text(rest, 4, mark.reason) && rest.empty();
}

uint64_t fwu_entry_source_length(const fwu_layout &layout)
{
    const fwu_source &source = *layout.source;
    uint64_t length = FWU_ENTRY_HEADER_SIZE + SOURCE_FIXED + layout.dbname.size() +
                      layout.dsetname.size() + 2 + 2 + source.schema.size() + 1 + 2 +
                      source.table.size() + 1;
    for (const fwu_source_column &column : source.columns)
        length += COLUMN_FIXED + 2 + column.name.size() + 1 + 2 + column.type.size() + 1;
    return length;
}

uint64_t fwu_entry_mark_length(const fwu_mark &mark)
{
    uint64_t length =
        FWU_ENTRY_HEADER_SIZE + MARK_FIXED + mark.dbname.size() + mark.dsetname.size() + 2;
    for (const std::string *text : {&mark.schema, &mark.table, &mark.reason})
        length += 4 + text->size() + 1;
    return length;
}

void fwu_entry_put_source(std::vector<unsigned char> &out, int32_t tag, const fwu_layout &layout)
{
    const fwu_source &source = *layout.source;
    const uint64_t length = fwu_entry_source_length(layout);
    unsigned char *const entry = fwu_entry_add(out, length);
    unsigned char *p = entry + FWU_ENTRY_HEADER_SIZE;
    p[0] = static_cast<unsigned char>(layout.dbname.size());
    p[1] = static_cast<unsigned char>(layout.dsetname.size());
    put_le32(p + 4, static_cast<uint32_t>(source.columns.size()));
    put_index(p + 8, source.null_map);
    p = fwu_payload_put_text(p + SOURCE_FIXED, layout.dbname);
    p = fwu_payload_put_text(p, layout.dsetname);
    p = put_text(p, 2, source.schema);
    p = put_text(p, 2, source.table);
    for (const fwu_source_column &column : source.columns) {
        put_index(p, column.item);
        put_le32(p + 4, static_cast<uint32_t>(column.key));
        p = put_text(p + COLUMN_FIXED, 2, column.name);
        p = put_text(p, 2, column.type);
    }
    fwu_entry_seal(entry, length, FWU_KIND_SOURCE, tag);
}

void fwu_entry_put_mark(std::vector<unsigned char> &out, int32_t tag, const fwu_mark &mark)
{
    const uint64_t length = fwu_entry_mark_length(mark);
    unsigned char *const entry = fwu_entry_add(out, length);
    unsigned char *p = entry + FWU_ENTRY_HEADER_SIZE;
    p[0] = static_cast<unsigned char>(mark.kind);
    p[1] = static_cast<unsigned char>(mark.dbname.size());
    p[2] = static_cast<unsigned char>(mark.dsetname.size());
    p = fwu_payload_put_text(p + MARK_FIXED, mark.dbname);
    p = fwu_payload_put_text(p, mark.dsetname);
    for (const std::string *text : {&mark.schema, &mark.table, &mark.reason})
        p = put_text(p, 4, *text);
    fwu_entry_seal(entry, length, FWU_KIND_MARK, tag);
}
