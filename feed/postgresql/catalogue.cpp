// A width comes from the nearest that says one: the line of the column, the type itself, the
// lines of its type, the table of defaults.
#include "feed/postgresql/catalogue.h"

#include "feed/text.h"
#include "fwutil/fwu_source_name.h"

#include <algorithm>

constexpr int32_t WIDTH_MIN = 4; // to which a text may shrink

static const fwu_column *find_column(const fwu_config &config, const std::string &table,
                                     const std::string &column)
{
    for (const fwu_column &row : fwu_columns_of(config, table))
        if (row.column == column)
            return &row;
    return nullptr;
}

static bool name_is_free(const fwu_layout &layout, const std::string &name)
{
    return std::none_of(layout.items.begin(), layout.items.end(),
                        [&](const fwu_item &item) { return item.name == name; });
}

// The items that the configuration names, which columns without such a name have to leave free.
static outcome take_names(fwu_layout &taken, const fwu_config &config, const pgo_relation &relation,
                          const std::string &table)
{
    for (const pgo_column &column : relation.columns) {
        const fwu_column *said = find_column(config, table, column.name);
        if (said == nullptr || said->item.empty())
            continue;
        if (said->item == FEED_NULL_MAP || !name_is_free(taken, said->item))
            return outcome_bad(fwu_source_name(relation.schema, relation.name, column.name) +
                               ": there is another item " + said->item +
                               " in this dataset: give the column another one in its line of " +
                               config.path);
        taken.items.push_back({.name = said->item});
    }
    return {};
}

// The width that the configuration gives to columns of a type; null: none.
static const fwu_default_width *find_default(const fwu_config &config,
                                             const std::vector<std::string> &types)
{
    const fwu_default_width *of_all = nullptr;
    for (const std::string &type : types)
        for (const fwu_default_width &row : config.default_widths)
            if (row.type == type)
                return &row;
    for (const fwu_default_width &row : config.default_widths)
        if (row.type.empty())
            of_all = &row;
    return of_all;
}

static void choose_default(pgt_item &made, std::string &why, const pgc_rules &rules,
                           const pgo_column &column)
{
    const std::vector<std::string> types = pgt_names(column.type, rules.facts.kinds);
    const fwu_default_width *said = find_default(rules.config, types);
    if (said == nullptr) {
        why = "default of " + (types.empty() ? "types that are not known" : types.back());
        return;
    }
    made.item.size = said->width;
    why = (said->type.empty() ? "default-width" : "default-width of " + said->type) + " in " +
          rules.config.path;
}

static pgt_item choose(pgc_choice &choice, const pgc_rules &rules, const fwu_column *said,
                       const pgo_column &column)
{
    pgt_item made = pgt_item_of(column.type, column.modifier, rules.encoding, rules.facts.kinds);
    choice.bounded = made.length == PGT_EXACT;
    choice.shrinks = made.length != PGT_EXACT;
    if (said != nullptr && said->width != 0) {
        made.item.type = 'X';
        made.item.size = said->width;
        made.item.item_aux = 0;
        choice.bounded = choice.shrinks = false;
        choice.why = "width= in " + rules.config.path;
    } else if (made.length == PGT_DEFAULT) {
        choose_default(made, choice.why, rules, column);
    } else {
        choice.why = made.length == PGT_EXACT ? "its type" : "room for its characters";
    }
    return made;
}

// Finds the greatest width to which the others have to shrink, so that the record fits.
static void shrink(fwu_layout &layout, std::vector<pgc_choice> &choices)
{
    const auto length_with = [&](int32_t cap) {
        int64_t length = static_cast<int64_t>(choices.size()); // of the null map
        for (const pgc_choice &choice : choices)
            length += choice.shrinks ? std::min(choice.wanted, cap) : choice.wanted;
        return length;
    };
    if (length_with(FWU_TEXT_SIZE_MAX) <= PGC_IMAGE_MAX || length_with(WIDTH_MIN) > PGC_IMAGE_MAX)
        return; // it is as long as it is
    int32_t fits = WIDTH_MIN;
    int32_t too_long = FWU_TEXT_SIZE_MAX;
    while (too_long - fits > 1) {
        const int32_t between = fits + (too_long - fits) / 2;
        (length_with(between) <= PGC_IMAGE_MAX ? fits : too_long) = between;
    }
    for (size_t i = 0; i < choices.size(); i++) {
        pgc_choice &choice = choices[i];
        choice.shrunk = choice.shrinks && choice.wanted > fits;
        if (choice.shrunk)
            layout.items[i].size = choice.width = fits;
    }
}

outcome pgc_make_dataset(fwu_dataset &dataset, std::vector<pgc_choice> &choices,
                         const pgc_rules &rules, const pgo_relation &relation)
{
    const std::string table = fwu_source_name(relation.schema, relation.name);
    dataset.layout.items.clear();
    dataset.null_map = -1;
    choices.clear();
    fwu_layout taken;
    if (outcome named = take_names(taken, rules.config, relation, table); !named)
        return named;
    for (const pgo_column &column : relation.columns) {
        const fwu_column *said = find_column(rules.config, table, column.name);
        pgc_choice choice;
        fwu_item item = choose(choice, rules, said, column).item;
        if (said != nullptr && !said->item.empty())
            item.name = said->item;
        else
            feed_names_item(item.name, rules.names, taken, relation.schema, relation.name,
                            column.name, rules.notes);
        taken.items.push_back(item);
        choice.column = column.name;
        choice.item = item.name;
        choice.type = pgf_type_text(rules.facts, column);
        choice.width = choice.wanted = item.size;
        dataset.layout.items.push_back(std::move(item));
        choices.push_back(std::move(choice));
    }
    if (dataset.layout.items.empty())
        return outcome_bad("table " + table +
                           " has no columns: leave it out with the line skip-table " + table);
    shrink(dataset.layout, choices);
    fwu_item map;
    map.name = FEED_NULL_MAP;
    map.type = 'X';
    map.size = static_cast<int32_t>(dataset.layout.items.size());
    dataset.null_map = static_cast<int>(dataset.layout.items.size());
    dataset.layout.items.push_back(std::move(map));
    return {};
}
