// JSON text as a tree of values, for files that people may have changed.
#ifndef UTIL_JSON_READ_H
#define UTIL_JSON_READ_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum json_kind {
    JSON_NULL,
    JSON_FALSE,
    JSON_TRUE,
    JSON_NUMBER,
    JSON_STRING,
    JSON_ARRAY,
    JSON_OBJECT
};

struct json_node {
    json_kind kind = JSON_NULL;
    std::string name; // of a member of an object
    std::string text; // of a string, in UTF-8; of a number as it is written
    std::vector<json_node> children;
};

// Reads the value that a text begins with, and takes it away, with the blanks before and behind
// it.  False: there is none, and text begins where it is wrong.
bool json_read(json_node &node, std::string_view &text);

// A member of an object, the first one of this name; null: there is none, or it is no object.
const json_node *json_member(const json_node &object, std::string_view name);

// What a node that is a whole number holds.  False: it is none, or too large.
bool json_integer(int64_t &value, const json_node *node);

#endif
