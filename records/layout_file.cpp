// A file of layouts: of each line what says where values stand in an image, and what they are.
#include "changes/dataset.h"
#include "records/layouts.h"
#include "util/json_read.h"
#include "util/utf8.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

constexpr size_t FILE_SIZE_MAX = size_t{64} * 1024 * 1024;

static outcome read_file(std::string &text, const char *file)
{
    const int fd = open(file, O_RDONLY | O_CLOEXEC);
    ssize_t got = fd < 0 ? -1 : 1;
    while (got > 0 && text.size() <= FILE_SIZE_MAX) {
        char piece[65536];
        got = read(fd, piece, sizeof piece);
        if (got > 0)
            text.append(piece, static_cast<size_t>(got));
        else if (got < 0 && errno == EINTR)
            got = 1;
    }
    const int error = errno;
    if (fd >= 0)
        (void)close(fd); // nothing was written to it
    if (got < 0)
        return outcome_bad(std::string(file) + ": " + strerror(error));
    return got == 0 ? outcome() : outcome_bad(std::string(file) + ": larger than 64 MiB");
}

// UTF-8 as ISO 8859-1.  False: it is no text that fits.
static bool take_latin1(std::string &latin1, const json_node *node)
{
    if (node == nullptr || node->kind != JSON_STRING)
        return false;
    for (std::string_view text = node->text; !text.empty();) {
        uint32_t code = 0;
        const size_t length = utf8_decode(text, code);
        if (length == 0 || code > 0xFF)
            return false;
        latin1 += static_cast<char>(code);
        text.remove_prefix(length);
    }
    return true;
}

static bool take_number(int32_t &number, const json_node *node, int32_t smallest, int32_t largest)
{
    int64_t value = 0;
    if (!json_integer(value, node) || value < smallest || value > largest)
        return false;
    number = static_cast<int32_t>(value);
    return true;
}

static std::string text_or_empty(const json_node *node)
{
    return node != nullptr && node->kind == JSON_STRING ? node->text : std::string();
}

// An item, and the column that feeds it.  Null, or the member that is wrong.
static const char *take_item(change_dataset &dataset, fwu_source &source,
                             std::vector<std::pair<int32_t, int>> &key, const json_node &node)
{
    fwu_item item;
    std::string letter;
    if (!take_latin1(item.name, json_member(node, "name")) || item.name.empty() ||
        item.name.size() > FWU_ITEM_NAME_MAX)
        return "name";
    if (!take_latin1(letter, json_member(node, "type")) || letter.size() != 1 ||
        fwu_item_type_of(letter[0]) == nullptr)
        return "type";
    item.type = static_cast<unsigned char>(letter[0]);
    if (!take_number(item.size, json_member(node, "size"), 1, INT32_MAX) ||
        !fwu_item_size_ok(*fwu_item_type_of(item.type), item.size))
        return "size";
    if (!take_number(item.count, json_member(node, "count"), 1, FWU_ITEM_COUNT_MAX))
        return "count";
    if (!take_number(item.item_aux, json_member(node, "scale"), 0,
                     fwu_item_digits(item.type, item.size)))
        return "scale";
    const auto index = static_cast<int>(dataset.layout.items.size());
    dataset.layout.items.push_back(std::move(item));
    if (const json_node *column = json_member(node, "column");
        column != nullptr && column->kind == JSON_STRING)
        source.columns.push_back({.name = column->text,
                                  .type = text_or_empty(json_member(node, "source_type")),
                                  .item = index,
                                  .key = 0});
    int32_t place = 0;
    const json_node *of_key = json_member(node, "key");
    if (of_key != nullptr && of_key->kind != JSON_NULL) {
        if (!take_number(place, of_key, 1, INT32_MAX))
            return "key";
        key.emplace_back(place, index);
    }
    if (const json_node *map = json_member(node, "null_map");
        map != nullptr && map->kind == JSON_TRUE)
        source.null_map = index;
    return nullptr;
}

static const char *take_items(change_dataset &dataset, const json_node &line)
{
    fwu_source source;
    std::vector<std::pair<int32_t, int>> key;
    const json_node *items = json_member(line, "items");
    if (items == nullptr || items->kind != JSON_ARRAY || items->children.empty())
        return "items";
    for (const json_node &node : items->children)
        if (const char *wrong = take_item(dataset, source, key, node); wrong != nullptr)
            return wrong;
    if (source.null_map >= 0 &&
        !fwu_null_map_ok(dataset.layout.items, static_cast<size_t>(source.null_map)))
        return "null_map";
    dataset.layout.source = std::make_shared<const fwu_source>(std::move(source));
    if (fwu_layout_image_length(dataset.layout) >= FWU_IMAGE_LENGTH_MAX)
        return "items";
    change_dataset_complete(dataset, {});
    std::sort(key.begin(), key.end());
    dataset.key.clear();
    for (const auto &[place, item] : key)
        dataset.key.push_back(item);
    return nullptr;
}

// Null, or the member that is wrong.
static const char *take_dataset(change_dataset &dataset, const json_node &line)
{
    fwu_layout &layout = dataset.layout;
    if (!take_latin1(layout.dbname, json_member(line, "database")) || layout.dbname.empty() ||
        layout.dbname.size() > FWU_NAME_MAX)
        return "database";
    if (!take_latin1(layout.dsetname, json_member(line, "dataset")) || layout.dsetname.empty() ||
        layout.dsetname.size() > FWU_NAME_MAX)
        return "dataset";
    if (!fwu_position_parse(text_or_empty(json_member(line, "position")), dataset.begun))
        return "position";
    const std::string order = text_or_empty(json_member(line, "byte_order"));
    dataset.big_endian = order == "big";
    if (order != "big" && order != "little")
        return "byte_order";
    const std::string encoding = text_or_empty(json_member(line, "text_encoding"));
    dataset.encoding = encoding == fwu_encoding_name(FWU_UTF8) ? FWU_UTF8 : FWU_LATIN1;
    if (encoding != fwu_encoding_name(dataset.encoding))
        return "text_encoding";
    if (const char *wrong = take_items(dataset, line); wrong != nullptr)
        return wrong;
    dataset.table = text_or_empty(json_member(line, "table"));
    return nullptr;
}

static outcome is_no_layout(const char *file, size_t number, const std::string &why)
{
    return outcome_bad(std::string(file) + ": layout " + std::to_string(number) + " " + why +
                       "; \"fwlog layout --json\" prints such files");
}

outcome rec_layouts_read(rec_layouts &layouts, const char *file)
{
    layouts.name = file;
    std::string text;
    if (outcome done = read_file(text, file); !done)
        return done;
    std::string_view rest = text;
    size_t number = 0;
    do {
        number++;
        json_node line;
        if (!json_read(line, rest))
            return is_no_layout(file, number, "is no JSON");
        change_dataset &dataset = layouts.read.emplace_back();
        const char *const wrong = take_dataset(dataset, line);
        if (wrong != nullptr)
            return is_no_layout(file, number,
                                "has no member \"" + std::string(wrong) + "\" that can be");
        for (const change_dataset &other : layouts.read)
            if (&other != &dataset && other.layout.dbname == dataset.layout.dbname &&
                other.layout.dsetname == dataset.layout.dsetname)
                return is_no_layout(file, number, "is of a dataset that has one before");
        if (outcome done = rec_layouts_add(layouts, dataset, 0); !done)
            return std::move(done).at(std::string(file) + ": ");
    } while (!rest.empty());
    return {};
}
