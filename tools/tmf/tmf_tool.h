// The rows of tmf's subcommands, and what they share.
//
// A subcommand is a file: its options and where their values go, what it does, its help,
// and at the end its row.  A new one is declared here and takes its place in program.cpp.
#ifndef TOOLS_TMF_TMF_TOOL_H
#define TOOLS_TMF_TMF_TOOL_H

#include "msgfile/tmf.h"
#include "util/cli.h"

#include <climits>
#include <cstdint>
#include <string>
#include <string_view>

extern const cli_command tmf_info_row;
extern const cli_command tmf_read_row;
extern const cli_command tmf_write_row;
extern const cli_command tmf_repair_row;
extern const cli_command tmf_verify_row;
extern const cli_command tmf_salvage_row;

extern const cli_program tmf_program;

constexpr cli_kind TMFT_ONE_FILE = {
    .word = "FILE", .lacking = "which file?", .again = "more than one file", .may_be_empty = false};

// Numbers as the library takes them.
constexpr cli_kind tmft_number(const char *word, const char *bad, uint64_t smallest,
                               uint64_t largest = INT_MAX)
{
    return {.word = word,
            .lacking = "option lacks its number",
            .bad = bad,
            .smallest = smallest,
            .largest = largest};
}

// "1 record", "2 records".
std::string tmft_records_text(int64_t records);

// Print "tmf: file: text".  The library's text is that of the handle's last
// failure (null: of the last open), or of a code that no handle keeps.
outcome tmft_complain(const char *file, const char *text);
outcome tmft_complain_handle(const char *file, tmf_handle *h);
outcome tmft_complain_code(const char *file, int code);

// Closes the message file, also after a failure.  What so_far says, unless that was
// nothing and closing failed.
outcome tmft_close(tmf_handle *h, const char *file, outcome so_far);

// A record of a framed stream has its length in front, in so many bytes, the most
// significant one first.
constexpr size_t TMFT_LENGTH_SIZE = 4;
void tmft_put_framed(std::string &out, std::string_view record);
uint32_t tmft_get_length(const char *bytes);

// Whether the descriptor is the file itself, opened by somebody else.
bool tmft_same_file(int fd, const char *file);

#endif
