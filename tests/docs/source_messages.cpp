// Takes a source apart as far as literals, brackets and names go; comments, lines of the
// preprocessor and raw literals (help) are passed over.
#include "tests/docs/source_messages.h"

#include "tests/support/tempdir.h"

#include <algorithm>
#include <cstring>
#include <regex>

enum token_kind { WORD, LITERAL, SIGN };

struct token {
    token_kind kind;
    std::string text; // of a literal what stands between its quotes, as it is written
};

using tokens = std::vector<token>;

static bool is_word(char c)
{
    return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

// Where a quoted text that begins at a place ends: behind its closing quote.
static size_t end_of_quoted(const std::string &s, size_t at)
{
    const char quote = s[at++];
    while (at < s.size() && s[at] != quote)
        at += s[at] == '\\' ? 2U : 1U;
    return at + 1;
}

static size_t end_of_word(const std::string &s, size_t at)
{
    const bool number = isdigit(static_cast<unsigned char>(s[at])) != 0;
    while (at < s.size() && (is_word(s[at]) || (number && s[at] == '\'')))
        at++;
    return at;
}

// Behind what is no part of the program at a place: blanks, comments, the preprocessor's lines.
static size_t behind_blank(const std::string &s, size_t at)
{
    const auto behind = [&](const char *what, size_t size) {
        const size_t found = s.find(what, at);
        return found == std::string::npos ? s.size() : found + size;
    };
    if (s.compare(at, 2, "//") == 0 || s[at] == '#')
        return behind("\n", 1);
    if (s.compare(at, 2, "/*") == 0)
        return behind("*/", 2);
    return isspace(static_cast<unsigned char>(s[at])) != 0 ? at + 1 : at;
}

static size_t behind_raw(const std::string &s, size_t at)
{
    const size_t open = s.find('(', at);
    const std::string close = ")" + s.substr(at + 2, open - at - 2) + "\"";
    return s.find(close, open) + close.size();
}

static tokens tokens_of(const std::string &s)
{
    tokens all;
    for (size_t at = 0; at < s.size();) {
        const size_t behind = behind_blank(s, at);
        if (behind != at) {
            at = behind;
        } else if (s.compare(at, 2, "R\"") == 0) {
            at = behind_raw(s, at);
            all.push_back({LITERAL, ""});
        } else if (s[at] == '"' || s[at] == '\'') {
            const size_t end = end_of_quoted(s, at);
            if (s[at] == '\'')
                all.push_back({WORD, "'"});
            else if (!all.empty() && all.back().kind == LITERAL)
                all.back().text += s.substr(at + 1, end - at - 2);
            else
                all.push_back({LITERAL, s.substr(at + 1, end - at - 2)});
            at = end;
        } else if (is_word(s[at])) {
            const size_t end = end_of_word(s, at);
            const std::string word = s.substr(at, end - at);
            if (word.rfind("PRI", 0) == 0 && !all.empty() && all.back().kind == LITERAL)
                all.back().text += "u"; // of a conversion whose length the macro knows
            else
                all.push_back({WORD, word});
            at = end;
        } else {
            all.push_back({SIGN, std::string(1, s[at++])});
        }
    }
    return all;
}

static bool is_sign(const tokens &all, size_t at, const char *signs)
{
    return at < all.size() && all[at].kind == SIGN && strchr(signs, all[at].text[0]) != nullptr;
}

// Behind the operand of a + that begins at a place.
static size_t behind_operand(const tokens &all, size_t at)
{
    int depth = 0;
    for (; at < all.size(); at++) {
        if (depth == 0 && is_sign(all, at, "+,;)]}?=<|&"))
            break;
        if (depth == 0 && is_sign(all, at, ":") && !is_sign(all, at + 1, ":") &&
            !is_sign(all, at - 1, ":"))
            break;
        depth += is_sign(all, at, "([{") ? 1 : is_sign(all, at, ")]}") ? -1 : 0;
    }
    return at;
}

static std::string replaced(std::string text, const std::string &what, const std::string &by)
{
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
    return text;
}

// A literal as it is read: without escapes, "..." for conversions.
static std::string as_read(const std::string &literal)
{
    static const std::regex conversion(R"(%[-+#0]*[0-9*]*(\.[0-9*]+)?(hh|h|ll|l|z|j|t)?[a-zA-Z])");
    std::string text = literal;
    for (const auto &[what, by] :
         {std::pair{"\\n", " "}, {"\\t", " "}, {"\\033[K\\r", ""}, {"\\\"", "\""}, {"\\\\", "\\"}})
        text = replaced(text, what, by);
    if (text.find('%') != std::string::npos)
        text = replaced(std::regex_replace(text, conversion, "..."), "%%", "%");
    return text;
}

// One blank between words; at the ends neither what is put in nor what joins it.
static std::string tidy(std::string text)
{
    while (text.find("......") != std::string::npos)
        text = replaced(text, "......", "...");
    while (text.find("  ") != std::string::npos)
        text = replaced(text, "  ", " ");
    const auto skipped = [&](size_t at) {
        return text.compare(at, 3, "...") == 0                                    ? 3U
               : at < text.size() && strchr(" :;,/", text[at]) != nullptr         ? 1U
               : text.compare(at, 2, "..") == 0 || text.compare(at, 2, ".:") == 0 ? 1U
                                                                                  : 0U;
    };
    size_t begin = 0;
    while (begin < text.size() && skipped(begin) != 0)
        begin += skipped(begin);
    text.erase(0, begin);
    const auto cut = [&] {
        const size_t size = text.size();
        return size >= 3 && text.compare(size - 3, 3, "...") == 0     ? 3U
               : size >= 1 && strchr(" :;,(", text.back()) != nullptr ? 1U
                                                                      : 0U;
    };
    while (cut() != 0)
        text.resize(text.size() - cut());
    return text;
}

// Two words side by side, one of them no name in capitals.
static bool is_english(const std::string &text)
{
    static const std::regex words("[A-Za-z]{2,}[,:;.]? \"?[a-z]|[a-z]{2,}[,:;.]? \"?[A-Za-z]{2,}");
    return std::regex_search(text, words);
}

std::vector<source_message> messages_of(const std::string &file, const std::string &source)
{
    const tokens all = tokens_of(source);
    std::vector<bool> joined(all.size());
    std::vector<std::string> callers;
    std::vector<source_message> found;
    for (size_t at = 0; at < all.size(); at++) {
        if (is_sign(all, at, "("))
            callers.push_back(at > 0 && all[at - 1].kind == WORD ? all[at - 1].text : "");
        else if (is_sign(all, at, ")") && !callers.empty())
            callers.pop_back();
        if (all[at].kind != LITERAL || joined[at])
            continue;
        std::string text = as_read(all[at].text);
        for (size_t next = at + 1; is_sign(all, next, "+") && !is_sign(all, next + 1, "=+");) {
            const size_t end = behind_operand(all, next + 1);
            const bool literal = end == next + 2 && all[next + 1].kind == LITERAL;
            text += literal ? as_read(all[next + 1].text) : "...";
            joined[next + 1] = joined[next + 1] || literal;
            next = end;
        }
        text = tidy(text);
        if (is_english(text))
            found.push_back({text, file, callers});
    }
    return found;
}

std::vector<source_message> messages_in(const std::vector<std::string> &folders)
{
    namespace fs = std::filesystem;
    std::vector<std::string> files;
    for (const std::string &folder : folders) {
        for (const auto &entry :
             fs::recursive_directory_iterator(fs::path(KESTRO_SOURCE_DIR) / folder)) {
            if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h")
                files.push_back(fs::relative(entry.path(), KESTRO_SOURCE_DIR).string());
        }
    }
    std::sort(files.begin(), files.end());
    std::vector<source_message> found;
    for (const std::string &file : files) {
        const auto more = messages_of(file, read_file(std::string(KESTRO_SOURCE_DIR "/") + file));
        found.insert(found.end(), more.begin(), more.end());
    }
    return found;
}
