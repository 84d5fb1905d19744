// A log is read as far as the records ask for: they stand in its order.
#include "records/layouts.h"

#include "changes/value.h"
#include "util/json_text.h"

#include <algorithm>

void rec_layouts_begin(rec_layouts &layouts, const rec_form &form)
{
    layouts.form = form;
    rec_header_make(layouts.header, form);
}

static bool same_names(const fwu_layout &a, const fwu_layout &b)
{
    return a.dbname == b.dbname && a.dsetname == b.dsetname;
}

outcome rec_layouts_add(rec_layouts &layouts, const change_dataset &dataset, int32_t record)
{
    const fwu_layout &layout = dataset.layout;
    std::vector<rec_since> &known =
        layouts.by_key[rec_header_key(layouts.header, layout.dbname, layout.dsetname)];
    rec_dataset made;
    rec_dataset_make(made, dataset, layouts.form);
    if (!known.empty() && !same_names(known.back().dataset->dataset->layout, layout))
        return outcome_bad(made.name + " and " + known.back().dataset->name +
                           ": these headers do not tell them apart");
    known.push_back({record, &layouts.made.emplace_back(std::move(made))});
    return {};
}

outcome rec_layouts_log(rec_layouts &layouts, const char *cfg)
{
    fwu_config config;
    if (fwu_config_read(config, cfg) != 0)
        return OUTCOME_FAILED;
    layouts.name = config.log_directory;
    layouts.log = std::make_unique<change_reader>();
    return change_open(*layouts.log, config, {}) == 0 ? outcome() : outcome(OUTCOME_FAILED);
}

// Notes the layout of a change of the log.
static outcome take(rec_layouts &layouts, const change &next)
{
    if (next.mark != nullptr)
        return {};
    layouts.last = next.record;
    const fwu_layout &layout = next.dataset->layout;
    const auto known =
        layouts.by_key.find(rec_header_key(layouts.header, layout.dbname, layout.dsetname));
    if (known != layouts.by_key.end() && known->second.back().dataset->dataset == next.dataset)
        return {};
    return rec_layouts_add(layouts, *next.dataset, next.record);
}

// Goes through the log up to a record; 0: to its end.
static outcome read_on(rec_layouts &layouts, int32_t record)
{
    while (record == 0 || layouts.last < record) {
        change next;
        switch (change_next(*layouts.log, next)) {
        case CHANGE_FOUND:
            if (outcome done = take(layouts, next); !done)
                return done;
            break;
        case CHANGE_COMMITTED:
        case CHANGE_PASSED:
            break;
        case CHANGE_FAILED:
            return OUTCOME_FAILED;
        default:
            return {};
        }
    }
    return {};
}

static std::string key_text(const std::string &key)
{
    std::string utf8;
    change_put_utf8(utf8, key);
    return json_text(utf8);
}

outcome rec_layouts_find(rec_layouts &layouts, const rec_header &header, rec_dataset *&found)
{
    const int32_t record = layouts.log == nullptr ? 0 : header.record;
    auto known = layouts.by_key.find(header.key);
    const bool look = layouts.log != nullptr &&
                      (record != 0 ? record > layouts.last : known == layouts.by_key.end());
    if (look) {
        if (outcome done = read_on(layouts, record); !done)
            return done;
        known = layouts.by_key.find(header.key);
    }
    found = nullptr;
    if (known != layouts.by_key.end()) {
        const std::vector<rec_since> &all = known->second;
        if (record == 0) {
            found = all.back().dataset;
        } else {
            const auto behind = std::upper_bound(
                all.begin(), all.end(), record,
                [](int32_t wanted, const rec_since &row) { return wanted < row.record; });
            if (behind != all.begin())
                found = (behind - 1)->dataset;
        }
    }
    if (found != nullptr)
        return found->refused.empty() ? outcome()
                                      : outcome_bad(found->name + ": " + found->refused);
    std::string told = layouts.name + " has no layout of " + key_text(header.key);
    if (record != 0)
        told += " at record " + std::to_string(record) + " or before it";
    return outcome_bad(told);
}
