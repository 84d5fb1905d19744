// All that a line of a change stream has given, as text: what two readings of it are compared by.
#ifndef TESTS_FEED_WAL2JSON_LINE_SHOWN_H
#define TESTS_FEED_WAL2JSON_LINE_SHOWN_H

#include "feed/wal2json/line.h"
#include "util/outcome.h"

#include <string>

inline std::string shown_row(const feed_row &row)
{
    std::string text = row.present ? " {" : " -{";
    for (size_t i = 0; i < row.count; i++) {
        const feed_column &column = row.columns[i];
        text += column.name + ":" + column.type_name + "/" + std::to_string(column.type.whole) +
                std::to_string(column.type.element) + "=" + std::to_string(column.kind) + "[" +
                std::string(column.value) + "]";
    }
    return text + "}";
}

// What a fresh record has of a line, or why the line was refused.
inline std::string shown_line(const w2j_line &line, const outcome &done)
{
    if (!done)
        return std::to_string(done.kind()) + " " + done.text();
    return std::string(1, line.action) + std::to_string(line.xid) + " " + line.lsn + " " +
           line.timestamp + " " + line.schema + "." + line.table + shown_row(line.columns) +
           shown_row(line.identity) + shown_row(line.key) + std::to_string(line.transactional) +
           " " + line.prefix + " " + line.content;
}

#endif
