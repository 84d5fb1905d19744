// A forward log as lines of text, one for each entry, to compare logs and to
// look at what a load wrote.
#ifndef TESTS_SUPPORT_LOG_LINES_H
#define TESTS_SUPPORT_LOG_LINES_H

#include <map>
#include <string>
#include <vector>

// "layout DB.SET", "session key=value ... | data ...", "insert DB.SET time
// <hex|hex>", "mark t DB.SET schema.table: reason", "commit time_us xid lsn" and so on; nothing
// that differs between two logs of the same changes.  "damage ..." where the log is not whole.
std::vector<std::string> log_lines(const std::string &directory);

// Number of lines that begin with the words given, as "insert SALES.ORDERS ".
size_t count_lines(const std::vector<std::string> &lines, const std::string &beginning);

#endif
