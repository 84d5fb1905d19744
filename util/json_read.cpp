// By descent, which a limit on how deep values may lie in each other keeps bounded.
#include "util/json_read.h"

#include <algorithm>
#include <charconv>

constexpr int DEPTH_MAX = 64;

static void pass_blanks(std::string_view &text)
{
    text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
}

static bool take(std::string_view &text, char c)
{
    pass_blanks(text);
    if (!text.starts_with(c))
        return false;
    text.remove_prefix(1);
    return true;
}

static void put_code(std::string &out, uint32_t code)
{
    const auto put = [&out](uint32_t byte) { out += static_cast<char>(byte); };
    if (code < 0x80) {
        put(code);
        return;
    }
    if (code < 0x800) {
        put(0xC0 | code >> 6);
    } else if (code < 0x10000) {
        put(0xE0 | code >> 12);
        put(0x80 | (code >> 6 & 0x3F));
    } else {
        put(0xF0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3F));
        put(0x80 | (code >> 6 & 0x3F));
    }
    put(0x80 | (code & 0x3F));
}

// "\u" and four digits.
static bool take_unit(std::string_view &text, uint32_t &unit)
{
    constexpr size_t length = 6;
    if (text.size() < length || text[0] != '\\' || text[1] != 'u')
        return false;
    const char *const end = text.data() + length;
    if (std::from_chars(text.data() + 2, end, unit, 16).ptr != end)
        return false;
    text.remove_prefix(length);
    return true;
}

static bool take_escape(std::string &out, std::string_view &text)
{
    static constexpr std::string_view LETTERS = "\"\\/bfnrt";
    static constexpr std::string_view MEANT = "\"\\/\b\f\n\r\t";
    const size_t at = text.size() < 2 ? LETTERS.npos : LETTERS.find(text[1]);
    if (at != LETTERS.npos) {
        out += MEANT[at];
        text.remove_prefix(2);
        return true;
    }
    uint32_t code = 0;
    if (!take_unit(text, code))
        return false;
    const auto is_low = [](uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; };
    if (code >= 0xD800 && code <= 0xDBFF) {
        uint32_t low = 0;
        if (!take_unit(text, low) || !is_low(low))
            return false;
        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    } else if (is_low(code)) {
        return false;
    }
    put_code(out, code);
    return true;
}

static bool take_string(std::string &out, std::string_view &text)
{
    if (!take(text, '"'))
        return false;
    while (!text.empty()) {
        const char c = text.front();
        if (c == '\\') {
            if (!take_escape(out, text))
                return false;
            continue;
        }
        if (static_cast<unsigned char>(c) < 0x20)
            return false;
        text.remove_prefix(1);
        if (c == '"')
            return true;
        out += c;
    }
    return false;
}

static bool take_value(json_node &node, std::string_view &text, int depth);

// The members or elements behind the bracket that opens.
static bool take_children(json_node &node, std::string_view &text, char closing, int depth)
{
    if (take(text, closing))
        return true;
    do {
        json_node &child = node.children.emplace_back();
        if (node.kind == JSON_OBJECT && (!take_string(child.name, text) || !take(text, ':')))
            return false;
        if (!take_value(child, text, depth + 1))
            return false;
    } while (take(text, ','));
    return take(text, closing);
}

static bool take_word(json_node &node, std::string_view &text)
{
    static constexpr struct {
        std::string_view word;
        json_kind kind;
    } WORDS[] = {{"null", JSON_NULL}, {"true", JSON_TRUE}, {"false", JSON_FALSE}};
    for (const auto &row : WORDS) {
        if (!text.starts_with(row.word))
            continue;
        node.kind = row.kind;
        text.remove_prefix(row.word.size());
        return true;
    }
    const size_t length = std::min(text.find_first_not_of("+-.0123456789Ee"), text.size());
    node.kind = JSON_NUMBER;
    node.text = text.substr(0, length);
    text.remove_prefix(length);
    return length > 0;
}

static bool take_value(json_node &node, std::string_view &text, int depth)
{
    pass_blanks(text);
    if (depth > DEPTH_MAX)
        return false;
    if (text.starts_with('"')) {
        node.kind = JSON_STRING;
        return take_string(node.text, text);
    }
    for (const bool object : {false, true}) {
        if (!take(text, object ? '{' : '['))
            continue;
        node.kind = object ? JSON_OBJECT : JSON_ARRAY;
        return take_children(node, text, object ? '}' : ']', depth);
    }
    return take_word(node, text);
}

bool json_read(json_node &node, std::string_view &text)
{
    node = {};
    if (!take_value(node, text, 0))
        return false;
    pass_blanks(text);
    return true;
}

const json_node *json_member(const json_node &object, std::string_view name)
{
    if (object.kind == JSON_OBJECT)
        for (const json_node &child : object.children)
            if (child.name == name)
                return &child;
    return nullptr;
}

bool json_integer(int64_t &value, const json_node *node)
{
    if (node == nullptr || node->kind != JSON_NUMBER)
        return false;
    const char *const end = node->text.data() + node->text.size();
    const auto [at, error] = std::from_chars(node->text.data(), end, value);
    return error == std::errc() && at == end;
}
