// What was decided, by dataset.
#include "capture/selection.h"

#include "capture/capfil.h"
#include "capture/dsetpat.h"
#include "driver/base/logrec.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

using files = std::vector<capfil *>;

struct name_hash {
    using is_transparent = void;

    size_t operator()(std::string_view name) const
    {
        return std::hash<std::string_view>{}(name);
    }
};

struct selection {
    int32_t count = 0; // of files, when it was decided
    std::unordered_map<std::string, files, name_hash, std::equal_to<>> decided;
    std::string_view last_name; // a key of decided; most records have the dataset of the one before
    const files *last = nullptr;
};

static files decide(const capinfo *ci, const log_record *record)
{
    files taking;
    std::copy_if(ci->capfiles, ci->capfiles + ci->ncf, std::back_inserter(taking),
                 [&](const capfil *cf) { return dset_qualifies(cf, record) != 0; });
    return taking;
}

std::span<capfil *const> select_files(capinfo *ci, const log_record *record)
{
    if (ci->selected == nullptr)
        ci->selected = new selection;
    selection &selected = *ci->selected;
    if (selected.count != ci->ncf) {
        selected = {};
        selected.count = ci->ncf;
    }
    char subject[PAT_SUBJECT_SIZE];
    const std::string_view name(subject,
                                put_dset_subject(subject, record->dbname, record->dsetname));
    if (selected.last == nullptr || name != selected.last_name) {
        auto found = selected.decided.find(name);
        if (found == selected.decided.end())
            found = selected.decided.emplace(name, decide(ci, record)).first;
        selected.last_name = found->first;
        selected.last = &found->second;
    }
    return *selected.last;
}

void free_selection(selection *selected)
{
    delete selected;
}
