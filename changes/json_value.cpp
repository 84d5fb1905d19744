// What is the same in every image of a layout is written once and copied; what a character
// becomes stands in a table.
#include "changes/json_value.h"

#include "changes/value.h"
#include "util/json_text.h"

#include <algorithm>
#include <array>
#include <cstddef>

// What a character of ISO 8859-1 becomes inside a JSON string.
struct escape {
    uint8_t length = 0;
    char text[7] = {};
};

static constexpr std::array<escape, 256> make_escapes()
{
    constexpr char hex[] = "0123456789abcdef";
    std::array<escape, 256> rows{};
    for (unsigned c = 0; c < rows.size(); c++) {
        escape &row = rows[c];
        const auto put = [&row](unsigned byte) {
            row.text[row.length++] = static_cast<char>(byte);
        };
        if (c < 0x20 || (c >= 0x7F && c < 0xA0)) { // control characters of both halves
            for (const char byte : {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 0x0F]})
                put(static_cast<unsigned char>(byte));
        } else if (c >= 0xA0) {
            put(0xC0 | c >> 6);
            put(0x80 | (c & 0x3F));
        } else {
            if (c == '"' || c == '\\')
                put('\\');
            put(c);
        }
    }
    return rows;
}

static constexpr std::array<escape, 256> ESCAPES = make_escapes();

static const escape &escape_of(char c)
{
    return ESCAPES[static_cast<unsigned char>(c)];
}

void change_json_text(std::string &out, std::string_view latin1)
{
    out += '"';
    size_t begun = 0; // of the characters that stay as they are
    for (size_t at = 0; at < latin1.size(); at++) {
        const escape &row = escape_of(latin1[at]);
        if (row.length == 1)
            continue;
        out.append(latin1, begun, at - begun);
        out.append(row.text, row.length);
        begun = at + 1;
    }
    out.append(latin1, begun);
    out += '"';
}

void change_json_utf8(std::string &out, std::string_view text)
{
    constexpr char control_lead = '\xC2'; // of U+0080 to U+00BF
    out += '"';
    size_t begun = 0; // of the characters that stay as they are
    for (size_t at = 0; at < text.size(); at++) {
        const bool control = text[at] == control_lead && escape_of(text[at + 1]).text[0] == '\\';
        if (static_cast<signed char>(text[at]) < 0 && !control)
            continue;
        const escape &row = escape_of(text[control ? at + 1 : at]);
        if (row.length == 1)
            continue;
        out.append(text, begun, at - begun);
        out.append(row.text, row.length);
        at += control ? 1 : 0;
        begun = at + 1;
    }
    out.append(text, begun);
    out += '"';
}

// Columns of truth values, single ones and arrays.
static bool is_boolean(const std::string &source_type)
{
    return source_type == "boolean" || source_type == "boolean[]";
}

static bool is_floating(const fwu_item &item)
{
    return item.type == 'E' || item.type == 'R';
}

std::vector<change_json_item> change_json_items(const change_dataset &dataset,
                                                const change_json_options &options)
{
    const fwu_layout &layout = dataset.layout;
    std::vector<change_json_item> made;
    for (size_t i = 0; i < layout.items.size(); i++) {
        if (static_cast<int>(i) == dataset.null_map)
            continue;
        const fwu_source_column *column =
            options.source_names && dataset.column[i] != CHANGE_NO_ITEM
                ? &layout.source->columns[static_cast<size_t>(dataset.column[i])]
                : nullptr;
        change_json_item &item = made.emplace_back();
        item.item = &layout.items[i];
        item.index = i;
        item.name = ",";
        if (column != nullptr)
            json_text_append(item.name, column->name);
        else
            change_json_text(item.name, item.item->name);
        item.name += ':';
        item.offset = dataset.offsets[i];
        if (dataset.null_flag[i] != CHANGE_NO_ITEM)
            item.flag_at =
                dataset.offsets[static_cast<size_t>(dataset.null_map)] + dataset.null_flag[i];
        item.quoted = options.text_numbers && !is_floating(*item.item);
        item.boolean = column != nullptr && is_boolean(column->type);
    }
    return made;
}

// "true" or "false" for what a source's truth value becomes in an item; empty for all else.
static std::string_view truth(change_value kind, std::string_view text)
{
    if (kind == CHANGE_NUMBER) {
        // Decimals have their zeros: 1.00.
        const size_t point = std::min(text.find('.'), text.size());
        if (text.find_first_not_of('0', point + 1) != text.npos)
            return {};
        text = text.substr(0, point);
        return text == "1" ? "true" : text == "0" ? "false" : "";
    }
    const bool is_text = kind == CHANGE_LATIN1 || kind == CHANGE_UTF8;
    for (const std::string_view one : {"T", "t", "true"})
        if (is_text && text == one)
            return "true";
    for (const std::string_view one : {"F", "f", "false"})
        if (is_text && text == one)
            return "false";
    return {};
}

static void put_value(std::string &out, const change_json_item &item, change_value kind,
                      std::string_view text)
{
    if (item.boolean) {
        if (const std::string_view said = truth(kind, text); !said.empty()) {
            out += said;
            return;
        }
    }
    switch (kind) {
    case CHANGE_NUMBER:
        if (!item.quoted) {
            out += text;
            break;
        }
        [[fallthrough]];
    case CHANGE_SPECIAL:
        out += '"';
        out += text;
        out += '"';
        break;
    case CHANGE_LATIN1:
        change_json_text(out, text);
        break;
    case CHANGE_UTF8:
        change_json_utf8(out, text);
        break;
    case CHANGE_BYTES:
        out += R"({"hex":")";
        json_text_hex(out, text);
        out += "\"}";
        break;
    }
}

// The elements of an item, or its whole value in their place.
static void put_elements(std::string &out, std::string &work, const change_json_item &item,
                         const change_dataset &dataset, const unsigned char *element,
                         const std::string_view *whole)
{
    const int32_t count = whole != nullptr ? 1 : item.item->count;
    if (count > 1)
        out += '[';
    for (int32_t i = 0; i < count; i++, element += item.item->size) {
        if (i > 0)
            out += ',';
        std::string_view text = whole != nullptr ? *whole : std::string_view();
        const change_value kind = whole != nullptr
                                      ? change_value_whole(text, *item.item)
                                      : change_value_get(text, work, *item.item, dataset.big_endian,
                                                         dataset.encoding, element);
        put_value(out, item, kind, text);
    }
    if (count > 1)
        out += ']';
}

void change_json_row(std::string &out, std::string &work,
                     const std::vector<change_json_item> &items, const change_dataset &dataset,
                     const change_row &row)
{
    out += '{';
    const bool all_in_image = row.values.empty();
    size_t separator = 0; // characters of it in front of the next name
    for (const change_json_item &item : items) {
        std::string_view whole;
        const unsigned char flag = item.flag_at == CHANGE_NO_ITEM
                                       ? static_cast<unsigned char>(FWU_FLAG_VALUE)
                                       : row.image[item.flag_at];
        const change_place place = flag == FWU_FLAG_VALUE && all_in_image
                                       ? CHANGE_IN_IMAGE
                                       : change_place_of_flagged(whole, row, item.index, flag);
        if (place == CHANGE_NOT_KNOWN)
            continue;
        out.append(item.name.data() + 1 - separator, item.name.size() - 1 + separator);
        separator = 1;
        if (place == CHANGE_NULL)
            out += "null";
        else
            put_elements(out, work, item, dataset, row.image + item.offset,
                         place == CHANGE_WHOLE ? &whole : nullptr);
    }
    out += '}';
}
