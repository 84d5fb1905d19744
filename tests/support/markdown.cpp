// Walks a page line by line; a line inside a fence is neither heading nor table.
#include "tests/support/markdown.h"

#include "tests/support/tempdir.h"

#include <sstream>

struct md_line {
    std::string text;
    bool fence;  // opens or closes a fenced block
    bool fenced; // stands inside one
};

static std::string trimmed(const std::string &text)
{
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? ""
                                      : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

static std::vector<md_line> lines_of(const std::string &page)
{
    std::vector<md_line> lines;
    std::istringstream in(page);
    bool inside = false;
    for (std::string text; std::getline(in, text);) {
        const bool fence = trimmed(text).rfind("```", 0) == 0;
        lines.push_back({text, fence, inside && !fence});
        inside = inside != fence;
    }
    return lines;
}

// The level of a heading, 0 of another line.
static size_t level_of(const md_line &line)
{
    const size_t level = line.text.find_first_not_of('#');
    return line.fenced || level == std::string::npos || line.text[level] != ' ' ? 0 : level;
}

std::string md_page(const std::string &name)
{
    const std::string text = read_file(std::string(KESTRO_SOURCE_DIR "/") + name);
    if (text.empty())
        throw std::runtime_error("no page " + name);
    return text;
}

std::string md_section(const std::string &page, const std::string &heading)
{
    size_t level = 0;
    std::string section;
    for (const md_line &line : lines_of(page)) {
        const size_t here = level_of(line);
        if (level != 0 && here != 0 && here <= level)
            return section;
        if (level != 0)
            section += line.text + "\n";
        else if (here != 0 && trimmed(line.text.substr(here)) == heading)
            level = here;
    }
    if (level == 0)
        throw std::runtime_error("no heading \"" + heading + "\"");
    return section;
}

// The cells of a table's line, none of another line.  "\|" is a character.
static std::vector<std::string> cells_of(const md_line &line)
{
    const std::string text = trimmed(line.text);
    std::vector<std::string> cells;
    if (line.fenced || text.size() < 2 || text.front() != '|' || text.back() != '|')
        return cells;
    std::string cell;
    for (size_t i = 1; i < text.size(); i++) {
        if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '|') {
            cell += text[++i];
        } else if (text[i] == '|') {
            cells.push_back(trimmed(cell));
            cell.clear();
        } else {
            cell += text[i];
        }
    }
    return cells;
}

std::vector<md_table> md_find_tables(const std::string &text, const std::string &first_head)
{
    std::vector<md_table> tables;
    bool above = true;  // the line before is no part of a table
    bool found = false; // the line before is part of one that is looked for
    for (const md_line &line : lines_of(text)) {
        const std::vector<std::string> cells = cells_of(line);
        if (found && !cells.empty()) {
            tables.back().rows.push_back(cells);
        } else {
            found = above && !cells.empty() && cells[0] == first_head;
            if (found)
                tables.push_back({cells, {}});
        }
        above = cells.empty();
    }
    std::erase_if(tables, [](const md_table &table) { return table.rows.size() < 2; });
    if (tables.empty())
        throw std::runtime_error("no table \"" + first_head + "\"");
    for (md_table &table : tables)
        table.rows.erase(table.rows.begin()); // the line under the heads
    return tables;
}

md_table md_find_table(const std::string &text, const std::string &first_head)
{
    return md_find_tables(text, first_head).front();
}

std::vector<std::string> md_blocks(const std::string &text)
{
    static const std::string INDENT(4, ' ');
    std::vector<std::string> blocks;
    bool open = false;       // the line before is in a block
    bool blank_above = true; // an indented block begins behind an empty line
    for (const md_line &line : lines_of(text)) {
        const bool indented =
            !line.fenced && !line.fence && line.text.rfind(INDENT, 0) == 0 && (open || blank_above);
        if ((line.fenced || indented) && !open)
            blocks.emplace_back();
        if (line.fenced || indented)
            blocks.back() += line.text.substr(indented ? INDENT.size() : 0) + "\n";
        open = line.fenced || indented;
        blank_above = trimmed(line.text).empty();
    }
    return blocks;
}

std::string md_find_block(const std::string &text, const std::string &begins)
{
    for (const std::string &block : md_blocks(text)) {
        if (block.rfind(begins, 0) == 0)
            return block;
    }
    throw std::runtime_error("no code block \"" + begins + "\"");
}

std::vector<std::string> md_code(const std::string &text)
{
    std::vector<std::string> words;
    size_t from = text.find('`');
    while (from != std::string::npos) {
        const size_t to = text.find('`', from + 1);
        if (to == std::string::npos)
            break;
        words.push_back(text.substr(from + 1, to - from - 1));
        from = text.find('`', to + 1);
    }
    return words;
}
