// Most marks come again and again: a table has bits for what was told of its items.  The names
// outlast the table's record, which is made anew when its columns change.
#include "feed/marks.h"

#include "feed/remedy.h"
#include "feed/text.h"

// A bit for each kind of mark; what an old row lacks says nothing of new ones.
static uint8_t told_bit(fwu_flag flag, fwu_image image)
{
    switch (flag) {
    case FWU_FLAG_CUT:
        return 1;
    case FWU_FLAG_REPLACED:
        return 2;
    case FWU_FLAG_BLANK:
        return 4;
    default:
        return image == FWU_IMAGE_BEFORE ? 8 : 16;
    }
}

// Whether it was not told yet; it is taken for told from here on.
static bool is_news(feed_image_work &work, const feed_item_at &at, fwu_flag flag)
{
    const uint8_t bit = told_bit(flag, at.image);
    uint8_t &told = at.table.marks_told[at.item];
    if ((told & bit) != 0)
        return false;
    told |= bit;
    std::string name = at.table.name + " " + at.table.layout.items[at.item].name + " ";
    return work.told.insert(std::move(name += std::to_string(bit))).second;
}

static std::string_view whole_text(const feed_column &column)
{
    if (column.kind == FEED_TRUE || column.kind == FEED_FALSE)
        return column.kind == FEED_TRUE ? "t" : "f";
    const std::string_view text = column.value;
    if (column.type.whole == FEED_FILLED_WORDS)
        return text.substr(0, text.find_last_not_of(' ') + 1);
    return text;
}

// What became of the value.
static std::string mark_text(const feed_table &table, const feed_place &place,
                             const feed_column &column, const feed_refusal &refusal,
                             const std::string &why)
{
    const std::string value = feed_quote(whole_text(column));
    switch (place.flag) {
    case FWU_FLAG_CUT:
        if (place.blanks)
            return value + " ends with blanks, which item " + feed_item_text(place.item) +
                   " cannot tell from its filling: marked C";
        return value + " is too long for item " + feed_item_text(place.item) +
               ", cut and marked C: " +
               (table.own == nullptr ? "make the item wider"
                                     : feed_wider_remedy(table, place.item, column, 0));
    case FWU_FLAG_REPLACED:
        return value + " has " + feed_no_place_text(place.bad) + ": replaced and marked R";
    default:
        return why + ", left blank and marked !: " +
               feed_value_remedy(table, place.item, column, refusal);
    }
}

void feed_mark(feed_image_work &work, const feed_item_at &at, const feed_place &place,
               const feed_column &column, const std::string &why)
{
    (place.flag == FWU_FLAG_CUT        ? work.marked.cut
     : place.flag == FWU_FLAG_REPLACED ? work.marked.replaced
                                       : work.marked.left_out)++;
    work.values.push_back(
        {.item = static_cast<int32_t>(at.item), .image = at.image, .text = whole_text(column)});
    if (is_news(work, at, place.flag))
        work.notes.push_back(feed_column_name(at.table, column) + ": " +
                             mark_text(at.table, place, column, work.refusal, why) +
                             " (the whole value stands beside its record; told once)");
}

void feed_mark_unknown(feed_image_work &work, const feed_item_at &at)
{
    work.marked.unknown++;
    if (is_news(work, at, FWU_FLAG_UNKNOWN))
        work.news.push_back(at.table.layout.items[at.item].name);
}

void feed_tell_unknown(feed_image_work &work, const feed_table &table, fwu_image image)
{
    if (work.news.empty())
        return;
    std::string items;
    for (const std::string &name : work.news)
        items += (items.empty() ? "" : ", ") + name;
    std::string note = "table " + table.name + ": ";
    note += image == FWU_IMAGE_BEFORE ? "an old row" : "a new row";
    note += " came without item" + std::string(work.news.size() == 1 ? " " : "s ") + items;
    note += image == FWU_IMAGE_BEFORE ? "" : ", as what is stored apart and not changed does";
    note += ": marked ? (told once)";
    if (!table.old_row_remedy.empty())
        note += "; for such values, " + table.old_row_remedy;
    work.notes.push_back(std::move(note));
    work.news.clear();
}
