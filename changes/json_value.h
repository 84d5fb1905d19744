// A record image as a JSON object.
#ifndef CHANGES_JSON_VALUE_H
#define CHANGES_JSON_VALUE_H

#include "changes/change.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// How values are written.
struct change_json_options {
    bool source_names = false; // values by the source's columns where these are known, not by item
    bool text_numbers = false; // integers and decimals as strings
};

// An item of a layout made ready for its values.
struct change_json_item {
    std::string name; // with its quotes and the colon, behind what separates it from another one
    const fwu_item *item = nullptr;
    size_t index = 0;                 // in the layout
    int64_t offset = 0;               // in the image
    int64_t flag_at = CHANGE_NO_ITEM; // of its flag of the null map, in the image
    bool quoted = false;              // its numbers are strings
    bool boolean = false;             // its values are true and false
};

// The items whose values are written, which point into the dataset.
std::vector<change_json_item> change_json_items(const change_dataset &dataset,
                                                const change_json_options &options);

// Appends the values of a row of the dataset, without those that are not known.  work: scratch.
void change_json_row(std::string &out, std::string &work,
                     const std::vector<change_json_item> &items, const change_dataset &dataset,
                     const change_row &row);

// Appends ISO 8859-1 text as a JSON string.
void change_json_text(std::string &out, std::string_view latin1);

// The same for UTF-8, which the text has to be.
void change_json_utf8(std::string &out, std::string_view text);

#endif
