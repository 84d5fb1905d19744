// Lines of changes in JSON, put briefly.
#ifndef TESTS_TOOLS_FWLOG_JSON_LINES_H
#define TESTS_TOOLS_FWLOG_JSON_LINES_H

#include <sstream>
#include <string>

inline constexpr const char *FWLOG = KESTRO_BUILD_DIR "/bin/fwlog";

// What stands between two texts; empty when they do not.
inline std::string text_between(const std::string &line, const std::string &front,
                                const std::string &back)
{
    const size_t at = line.find(front);
    const size_t end = at == line.npos ? at : line.find(back, at + front.size());
    return end == line.npos ? "" : line.substr(at + front.size(), end - at - front.size());
}

// "S:ORDERS " for a layout, "u1-25.340#4 " for an update at that position, the fourth change of
// its transaction, with "!" behind the number when it is the last one; "? " for what is neither.
inline std::string json_lines_summary(const std::string &out)
{
    std::string summary;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        const std::string transaction = text_between(line, "\"transaction\":{", "}");
        if (line.starts_with("{\"schema\":{"))
            summary += "S:" + text_between(line, "\"dataset\":\"", "\"");
        else if (line.starts_with("{\"op\":\"") && line.ends_with('}') && !transaction.empty())
            summary += text_between(line, "\"op\":\"", "\"") +
                       text_between(line, "\"position\":\"", "\"") + "#" +
                       text_between(transaction, "\"n\":", ",") +
                       (transaction.ends_with("\"last\":true") ? "!" : "");
        else
            summary += "?";
        summary += " ";
    }
    return summary;
}

#endif
