// The grammar of a line of the configuration file, whatever its statement says.
#ifndef FWUTIL_FWU_CONFIG_TEXT_H
#define FWUTIL_FWU_CONFIG_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Where something stands, for messages.
struct fwu_config_at {
    std::string path;
    int line = 0;
};

using fwu_words = std::vector<std::string>;

// Reports what is wrong with a line; -1.
__attribute__((format(printf, 2, 3))) int fwu_config_wrong(const fwu_config_at &at,
                                                           const char *format, ...);

// Splits a line into words; a double quote that begins a word holds it together
// up to the next one, "#" at the beginning of a word begins a comment.  quoted: a word
// was.  0 or -1 (reported).
int fwu_config_split(const fwu_config_at &at, std::string_view line, fwu_words &out, bool &quoted);

// The same for lines with names of the source, in which quotes may stand anywhere in a word: they
// hold blanks together and stay where they are.
int fwu_config_split_names(const fwu_config_at &at, std::string_view line, fwu_words &out);

// The first word of a line; empty: there is none.
std::string_view fwu_config_first(std::string_view line);

// Decimal digits only, at most max; -1 for anything else.
int64_t fwu_config_number(std::string_view text, int64_t max);

#endif
