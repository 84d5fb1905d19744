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
    std::string name; // with its quotes, the colon and what separates it from the one before
    const fwu_item *item = nullptr;
    int64_t offset = 0;               // in the image
    int64_t null_at = CHANGE_NO_ITEM; // in the image: 'N' there says null
    bool quoted = false;              // its numbers are strings
    bool boolean = false;             // its values are true and false
};

// The items whose values are written, which point into the dataset.
std::vector<change_json_item> change_json_items(const change_dataset &dataset,
                                                const change_json_options &options);

// Appends the values of an image.  work: scratch.
void change_json_image(std::string &out, std::string &work,
                       const std::vector<change_json_item> &items, bool big_endian,
                       const unsigned char *image);

// Appends ISO 8859-1 text as a JSON string.
void change_json_text(std::string &out, std::string_view latin1);

#endif
