// Reads the macros that the pages of docs/man are written with (mdoc).
#include "tests/support/man_page.h"

#include "tests/support/tempdir.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <sstream>

std::string man_page(const std::string &name)
{
    return read_file(KESTRO_SOURCE_DIR "/docs/man/" + name);
}

std::string man_section(const std::string &page, const std::string &heading)
{
    const std::string head = "\n.Sh " + heading + "\n";
    const size_t at = page.find(head);
    if (at == std::string::npos)
        return "";
    const size_t begin = at + head.size();
    const size_t end = page.find("\n.Sh ", begin - 1);
    return page.substr(begin, end == std::string::npos ? end : end + 1 - begin);
}

// A word with "\-" as "-", and without the "\&" that keeps it from being a macro or an end of
// a sentence.
static std::string plain(const std::string &word)
{
    std::string text;
    for (size_t i = 0; i < word.size(); i++) {
        if (word[i] == '\\' && i + 1 < word.size()) {
            i++;
            if (word[i] == '&')
                continue;
        }
        text += word[i];
    }
    return text;
}

std::vector<std::string> man_words(const std::string &line)
{
    std::vector<std::string> words;
    for (size_t i = 0; i < line.size();) {
        if (line[i] == ' ') {
            i++;
            continue;
        }
        const bool quoted = line[i] == '"';
        const size_t begin = i + (quoted ? 1 : 0);
        const size_t end = std::min(line.find(quoted ? '"' : ' ', begin), line.size());
        words.push_back(plain(line.substr(begin, end - begin)));
        i = end + (quoted ? 1 : 0);
    }
    return words;
}

// Text that grows word by word.
struct shown_text {
    std::string text;
    bool close = true; // the next word stands close to the one before

    void add(const std::string &word)
    {
        static const std::string OPENS = "[(|", CLOSES = "])|,";
        close = close || (word.size() == 1 && CLOSES.find(word) != std::string::npos);
        text += (close ? "" : " ") + word;
        close = word.size() == 1 && OPENS.find(word) != std::string::npos;
    }
};

std::string man_shown(const std::string &line)
{
    static const std::map<std::string, const char *> brackets = {
        {"Oo", "["}, {"Oc", "]"}, {"Po", "("}, {"Pc", ")"}};
    shown_text shown;
    std::string ends; // of the brackets that the line closes, the last one first
    const std::vector<std::string> words = man_words(line);
    for (size_t i = 0; i < words.size(); i++) {
        const std::string &word = words[i];
        const bool last = i + 1 == words.size();
        if (const auto at = brackets.find(word); at != brackets.end()) {
            shown.add(at->second);
        } else if (word == "Op") {
            shown.add("[");
            ends += "]";
        } else if (word == "Ns") {
            shown.close = true;
        } else if (word == "Qq") {
            shown.add('"' + words.at(++i) + '"');
        } else if (word == "Fl") {
            if (last)
                shown.add("-");
            else
                shown.add("-" + words[++i]);
        } else if (word != "Ar" && word != "Cm" && word != "Nm" && word != "Ev" && word != "No") {
            shown.add(word);
        }
    }
    for (; !ends.empty(); ends.pop_back())
        shown.add("]");
    return shown.text;
}

std::string man_synopsis(const std::string &page)
{
    std::istringstream in(man_section(page, "SYNOPSIS"));
    shown_text shown;
    for (std::string line; std::getline(in, line);)
        shown.add(man_shown(line.substr(1)));
    return shown.text;
}

// The lines that begin with ".It ", without that.
static std::vector<std::string> item_lines(const std::string &page)
{
    std::vector<std::string> found;
    std::istringstream in(page);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(".It ", 0) == 0)
            found.push_back(line.substr(4));
    }
    return found;
}

std::set<std::string> man_options(const std::string &page)
{
    std::set<std::string> options;
    for (const std::string &line : item_lines(page)) {
        const std::vector<std::string> words = man_words(line);
        for (size_t i = 0; i + 1 < words.size(); i++) {
            if (words[i] == "Fl")
                options.insert("-" + words[i + 1]);
        }
    }
    return options;
}

std::set<std::string> man_items(const std::string &page, const std::string &macro)
{
    std::set<std::string> found;
    for (const std::string &line : item_lines(page)) {
        const std::vector<std::string> words = man_words(line);
        const bool has_macro = words.at(0).size() == 2 && isupper(words[0][0]) != 0;
        if (macro.empty() ? has_macro : words[0] != macro)
            continue;
        if (macro != "Ev") {
            found.insert(man_shown(line));
            continue;
        }
        for (size_t i = 1; i < words.size() && words[i] != "No"; i++) {
            if (words[i] != "," && words[i] != "Ev")
                found.insert(words[i]);
        }
    }
    return found;
}

static std::string joined(const std::string &type, const std::vector<std::string> &words)
{
    std::string text = type + (type.back() == '*' ? "" : " ") + words.at(0) + "(";
    for (size_t i = 1; i < words.size(); i++)
        text += (i > 1 ? ", " : "") + words[i];
    return text + ")";
}

std::set<std::string> man_prototypes(const std::string &page)
{
    std::set<std::string> found;
    std::istringstream in(man_section(page, "SYNOPSIS"));
    std::string type;
    std::vector<std::string> long_one; // between .Fo and .Fc
    for (std::string line; std::getline(in, line);) {
        const std::vector<std::string> words =
            man_words(line.substr(std::min<size_t>(4, line.size())));
        const std::string macro = line.substr(0, 4);
        if (macro == ".Ft ") {
            type.clear();
            for (const std::string &word : words)
                type += (type.empty() ? "" : " ") + word;
        } else if (macro == ".Fn ") {
            found.insert(joined(type, words));
        } else if (macro == ".Fo ") {
            long_one = words;
        } else if (macro == ".Fa ") {
            long_one.insert(long_one.end(), words.begin(), words.end());
        } else if (macro == ".Fc") {
            found.insert(joined(type, long_one));
        }
    }
    return found;
}
