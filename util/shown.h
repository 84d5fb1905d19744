// Texts in messages: names of tables and other texts of clients may hold what would move a
// terminal's cursor or look like another message.
#ifndef UTIL_SHOWN_H
#define UTIL_SHOWN_H

#include <cstdio>
#include <string>
#include <string_view>

// The text as a terminal shows it and does nothing else: control characters but the tabulator as
// \x1b, those of two bytes in UTF-8 as \u009b.  keeps_lines: a line end with two blanks behind it,
// which goes on with a message, stays one.
inline std::string shown_text(std::string_view text, bool keeps_lines)
{
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        const auto c = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        const bool two = c == 0xC2 && next >= 0x80 && next < 0xA0; // U+0080 to U+009F in UTF-8
        const bool ours = keeps_lines && c == '\n' && text.substr(i + 1, 2) == "  ";
        if ((c >= 0x20 && c != 0x7F && !two) || ours || c == '\t') {
            out += text[i];
            continue;
        }
        char code[8];
        (void)snprintf(code, sizeof code, two ? "\\u%04x" : "\\x%02x", two ? next : c); // fits
        out += code;
        i += two ? 1 : 0;
    }
    return out;
}

#endif
