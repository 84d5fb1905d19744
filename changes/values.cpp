// Pieces are put together as they come; where a value lies is known when all of them are there.
#include "changes/values.h"

#include <algorithm>
#include <tuple>

static_assert(FWU_IMAGE_AFTER < FWU_IMAGE_BEFORE);     // the order of rows
constexpr size_t BYTES_KEPT = 2 * FWU_VALUE_PIECE_MAX; // for the next change; a huge one is let go

void change_values_clear(change_values &values)
{
    values.bytes.clear();
    if (values.bytes.capacity() > BYTES_KEPT)
        values.bytes.shrink_to_fit();
    values.wholes.clear();
    values.rows.clear();
    values.more = false;
    values.given = false;
}

bool change_values_take(change_values &values, const fwu_value_piece &piece)
{
    if (values.given)
        change_values_clear(values);
    if (!values.more)
        values.wholes.push_back({piece.item, piece.image, values.bytes.size()});
    const change_values::whole &last = values.wholes.back();
    if (last.item != piece.item || last.image != piece.image)
        return false;
    values.bytes += piece.bytes;
    values.more = piece.more;
    return true;
}

static auto place_of(const fwu_value &value)
{
    return std::tuple(value.image, value.item);
}

static void make_rows(change_values &values)
{
    const std::string_view bytes = values.bytes;
    values.rows.clear();
    for (size_t i = 0; i < values.wholes.size(); i++) {
        const change_values::whole &of = values.wholes[i];
        const size_t end = i + 1 < values.wholes.size() ? values.wholes[i + 1].begin : bytes.size();
        values.rows.push_back({of.item, of.image, bytes.substr(of.begin, end - of.begin)});
    }
    std::sort(values.rows.begin(), values.rows.end(),
              [](const fwu_value &a, const fwu_value &b) { return place_of(a) < place_of(b); });
}

bool change_values_give_some(change_values &values, size_t items, change_row &before,
                             change_row &after)
{
    if (values.given) { // to the change before this one
        change_values_clear(values);
        return true;
    }
    values.given = true;
    make_rows(values);
    const auto same_place = [](const fwu_value &a, const fwu_value &b) {
        return place_of(a) == place_of(b);
    };
    const auto has_no_place = [&](const fwu_value &value) {
        const change_row &row = value.image == FWU_IMAGE_BEFORE ? before : after;
        return row.image == nullptr || static_cast<size_t>(value.item) >= items;
    };
    const std::span<const fwu_value> rows = values.rows;
    if (values.more || std::any_of(rows.begin(), rows.end(), has_no_place) ||
        std::adjacent_find(rows.begin(), rows.end(), same_place) != rows.end())
        return false;
    const auto n = std::count_if(rows.begin(), rows.end(), [](const fwu_value &value) {
        return value.image == FWU_IMAGE_AFTER;
    });
    after.values = rows.first(static_cast<size_t>(n));
    before.values = rows.subspan(static_cast<size_t>(n));
    return true;
}
