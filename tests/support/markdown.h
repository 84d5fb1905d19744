// Parts of a Markdown page, for tests that compare a page with golden files and with
// the program's tables: sections, tables, code blocks.
#ifndef TESTS_SUPPORT_MARKDOWN_H
#define TESTS_SUPPORT_MARKDOWN_H

#include <string>
#include <vector>

struct md_table {
    std::vector<std::string> heads;
    std::vector<std::vector<std::string>> rows; // cells without the blanks around them
};

// All functions throw std::runtime_error when what they look for is not there.

// The page of that name below the source folder: md_page("docs/fwlog.md").
std::string md_page(const std::string &name);

// What stands below the heading with that text, up to the next heading of its level
// or above.
std::string md_section(const std::string &page, const std::string &heading);

// The tables whose first head is that cell, in their order; the first of them.
std::vector<md_table> md_find_tables(const std::string &text, const std::string &first_head);
md_table md_find_table(const std::string &text, const std::string &first_head);

// Code blocks in their order, between fences or indented by four blanks, without
// either; each line with its end.
std::vector<std::string> md_blocks(const std::string &text);

// The first code block whose first line begins with that text.
std::string md_find_block(const std::string &text, const std::string &begins);

// What stands between backticks: "`a` or `b`" has "a" and "b".
std::vector<std::string> md_code(const std::string &text);

#endif
