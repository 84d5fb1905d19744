// The entries of a log as text: a line for each, with its position in front, and
// indented lines for what it holds.  The text is described in docs/fwlog.md.
#ifndef TOOLS_FWLOG_PRINT_H
#define TOOLS_FWLOG_PRINT_H

#include "fwutil/fwu_items.h"
#include "fwutil/fwu_log.h"

#include <map>
#include <string>
#include <utility>

struct fwlog_printer {
    bool hex = false; // images as bytes instead of values
    bool big_endian = false;
    fwu_encoding encoding = FWU_LATIN1;                                // of the texts in images
    std::map<std::pair<std::string, std::string>, fwu_layout> layouts; // of the present file
    std::string out;
};

// Appends the item's text to out.  Layouts are learned on the way, so every item of
// a file has to come here, also one whose text nobody wants.
void fwlog_print_item(fwlog_printer &printer, const fwu_walk_item &item);

#endif
