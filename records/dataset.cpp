// Columns stand one behind the other, each element of an item in one of its own.
#include "records/dataset.h"

#include "changes/value.h"
#include "util/json_text.h"

static std::string item_name(const fwu_item &item)
{
    std::string name;
    change_put_utf8(name, item.name);
    return name;
}

// Empty, or why a text record cannot have the item.
static std::string refuse(const rec_column *column, const fwu_item &item, bool big_endian,
                          const rec_form &form)
{
    const std::string name = "item " + item_name(item) + ": ";
    if (column == nullptr)
        return name + "a text capture file has no column for a number of " +
               std::to_string(item.size) + " bytes";
    // Integers that were read in the wrong order are turned back; of these, digits are lost.
    if (rec_column_digits(item) == 0 || column->big_endian == big_endian)
        return {};
    const char *const order = big_endian ? "big" : "little";
    const char *const made = form.asciirev ? "-asciirev" : "-ascii";
    const char *const right = form.asciirev ? "-ascii" : "-asciirev";
    return name + "a text file made with " + made + " on a machine like this does not tell " +
           order + "-endian floating-point numbers; capture with " + right;
}

void rec_dataset_make(rec_dataset &made, const change_dataset &dataset, const rec_form &form)
{
    made = {};
    made.dataset = &dataset;
    change_put_utf8(made.name, dataset.layout.dbname + "." + dataset.layout.dsetname);
    if (!form.text) {
        made.row_length = static_cast<size_t>(dataset.image_length);
        return;
    }
    for (const fwu_item &item : dataset.layout.items) {
        rec_column &column = made.columns.emplace_back();
        const bool has = rec_column_make(column, item, form);
        made.refused = refuse(has ? &column : nullptr, item, dataset.big_endian, form);
        if (!made.refused.empty())
            return;
        made.row_length += column.width * static_cast<size_t>(item.count);
    }
}

static std::string wrong_text(const rec_column &column, const fwu_item &item, std::string_view text)
{
    std::string wrong = "item " + item_name(item) + ": ";
    json_text_append(wrong, text);
    return wrong + " is not " + column.fits + (column.bwfmt ? " of -bwfmt" : "");
}

bool rec_dataset_image(const rec_dataset &of, std::vector<unsigned char> &image,
                       std::string_view row, std::string &wrong)
{
    image.resize(static_cast<size_t>(of.dataset->image_length));
    const std::vector<fwu_item> &items = of.dataset->layout.items;
    const char *text = row.data();
    unsigned char *element = image.data();
    for (size_t i = 0; i < items.size(); i++) {
        const rec_column &column = of.columns[i];
        for (int32_t k = 0; k < items[i].count; k++) {
            if (!rec_column_put(column, element, text)) {
                wrong = wrong_text(column, items[i], {text, column.width});
                return false;
            }
            text += column.width;
            element += column.size;
        }
    }
    return true;
}

static void add(std::string &list, const std::string &name)
{
    list += (list.empty() ? "" : ", ") + name;
}

std::string rec_dataset_inexact(const rec_dataset &of, const rec_form &form)
{
    if (!form.text)
        return {};
    std::string numbers;
    std::string texts;
    const std::vector<fwu_item> &items = of.dataset->layout.items;
    for (size_t i = 0; i < items.size(); i++) {
        const int digits = rec_column_digits(items[i]);
        if (digits != 0)
            add(numbers, item_name(items[i]) + " (" + std::to_string(digits) + ")");
        else if ((items[i].type == 'X' || items[i].type == 'U') && !form.dirty &&
                 static_cast<int>(i) != of.dataset->null_map)
            add(texts, item_name(items[i]));
    }
    std::string told;
    if (!numbers.empty())
        told = "so many digits of floating-point numbers: " + numbers;
    if (!texts.empty())
        told += (told.empty() ? "" : "; ") +
                ("\"~\" for each byte that is no printable ASCII: " + texts);
    return told;
}
