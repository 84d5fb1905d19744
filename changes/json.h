// Changes as JSON, an object a line: the envelope that docs/changes.schema.json describes.
//
// A line tells whether its change is the last of its transaction, which is not known before the
// next one has been seen: the end of a line is held back until then.
#ifndef CHANGES_JSON_H
#define CHANGES_JSON_H

#include "changes/change.h"
#include "changes/json_value.h"

#include <memory>
#include <string>

// What is kept from line to line; only the functions here change it.
struct change_json {
    change_json_options options;
    struct parts;
    std::unique_ptr<parts> own;
    explicit change_json(change_json_options options = {});
    ~change_json();
};

// Appends the lines of a change: that of its dataset's layout where another one, or none, was
// given last of this dataset, and its own without its end, behind that of the line before, whose
// change is then not the last of its transaction.  Of a transaction that is not known the line is
// whole.  The dataset has to live as long as json.
void change_json_put(change_json &json, std::string &out, const change &next,
                     const change_transaction &transaction);

// Appends the end of the line whose end is held back, if there is one.  last: nothing more comes
// of its transaction.
void change_json_end(change_json &json, std::string &out, bool last);

#endif
