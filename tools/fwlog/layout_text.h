// The layout of capture records as text: a table for people, JSON, a COBOL copybook.
#ifndef TOOLS_FWLOG_LAYOUT_TEXT_H
#define TOOLS_FWLOG_LAYOUT_TEXT_H

#include "tools/fwlog/record_layout.h"

#include <set>
#include <string>

// Appends the table.
void layout_put_columns(std::string &out, const record_layout &record);

// Appends one line with an object.
void layout_put_json(std::string &out, const record_layout &record);

// Appends a level-01 record.  names: of the records that the copybook has so far.
void layout_put_copybook(std::string &out, const record_layout &record,
                         std::set<std::string> &names);

#endif
