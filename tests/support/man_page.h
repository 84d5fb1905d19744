// Manual pages as written in docs/man, for tests that compare them with what they tell of.
#ifndef TESTS_SUPPORT_MAN_PAGE_H
#define TESTS_SUPPORT_MAN_PAGE_H

#include <set>
#include <string>
#include <vector>

// The source of a page: man_page("tmf.3").
std::string man_page(const std::string &name);

// The lines below ".Sh HEADING", up to the next one; empty without it.
std::string man_section(const std::string &page, const std::string &heading);

// Words of a line of macros: quoted ones as one, without escapes.
std::vector<std::string> man_words(const std::string &line);

// What a line of macros shows, without its first dot: "Op Fl cfg Ar FILE" as "[-cfg FILE]".
std::string man_shown(const std::string &line);

// The synopsis as it is shown, on one line.
std::string man_synopsis(const std::string &page);

// The options that items describe, as they are written: "-cfg", "--json".
std::set<std::string> man_options(const std::string &page);

// What items show that begin with a macro: man_items(page, "Fl") "-cfg FILE"; "Ev" the
// variables one by one; "" items without a macro.
std::set<std::string> man_items(const std::string &page, const std::string &macro);

// The prototypes of a synopsis: "int tmf_fclose(tmf_handle *h)".
std::set<std::string> man_prototypes(const std::string &page);

#endif
