// The session that made a change: five named entries, each present or not, and
// a list of data elements.
#ifndef FWUTIL_FWU_SESSION_H
#define FWUTIL_FWU_SESSION_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct fwu_session {
    std::optional<std::string> pname; // program
    std::optional<std::string> user;  // session user
    std::optional<std::string> login; // database user
    std::optional<std::string> pid;   // process id, decimal
    std::optional<std::string> info;
    std::vector<std::string> data;
};

// Their keys, in the order in which a log's session entries have them.
constexpr int FWU_SESSION_ENTRIES = 5;
constexpr const char *FWU_SESSION_KEYS[FWU_SESSION_ENTRIES] = {"pname", "user", "login", "pid",
                                                               "info"};

// The entry for a key, or null for a key that is not one of the five.
std::optional<std::string> *fwu_session_entry(fwu_session &session, std::string_view key);
const std::optional<std::string> *fwu_session_entry(const fwu_session &session,
                                                    std::string_view key);

#endif
