// Which codes each call of the library can give, found out by making it give them.
#ifndef TESTS_MSGFILE_PROVOKED_CODES_H
#define TESTS_MSGFILE_PROVOKED_CODES_H

#include <map>
#include <set>
#include <string>

// For each call, by its name, all codes that it gave: when one system call failed or
// did a part of its work, each in its turn, on files that are sound and on damaged
// ones; and beside other users.
std::map<std::string, std::set<int>> provoked_codes(const std::string &path);

#endif
