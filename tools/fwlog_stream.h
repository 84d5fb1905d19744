// The change stream as transactions: checks that its lines stand in order,
// turns rows into record images and hands whole transactions to the log.
#ifndef TOOLS_FWLOG_STREAM_H
#define TOOLS_FWLOG_STREAM_H

#include "fwutil/fwu_config.h"
#include "fwutil/fwu_session.h"
#include "fwutil/fwu_writer.h"
#include "tools/pg_image.h"
#include "tools/pg_table.h"
#include "tools/wal2json.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct fwlog_totals {
    uint64_t transactions = 0; // appended to the log
    uint64_t inserts = 0;
    uint64_t updates = 0;
    uint64_t deletes = 0;
    uint64_t empty = 0;   // transactions without a change for the log
    uint64_t skipped = 0; // transactions that the log had already
};

struct fwlog_stream {
    fwu_writer *writer = nullptr;
    pgt_tables tables; // tables.config is the configuration
    pgi_work work;
    fwlog_totals totals; // of whole transactions

    // The transaction in hand.
    bool open = false;     // between its B and C lines
    bool skipping = false; // the log has it
    bool begun = false;    // the writer has its first change
    bool has_session = false;
    uint64_t opened_at = 0; // number of its B line
    fwu_commit commit;
    int64_t logtime = 0;
    std::string lsn;     // as its B line writes it
    std::string content; // of its session message
    fwlog_totals changes;
    uint64_t truncated_before = 0; // work.truncated at its B line

    w2j_line line;
    fwu_session session;
    std::vector<unsigned char> before;
    std::vector<unsigned char> after;
};

enum fwlog_result {
    FWLOG_OK,
    FWLOG_BAD,    // error says what is wrong with the line
    FWLOG_FAILED, // the log could not be written: reported
};

// Takes the next line.  After anything but FWLOG_OK the transaction in hand has
// been forgotten and the stream cannot go on.
fwlog_result fwlog_stream_line(fwlog_stream &stream, std::string_view text, uint64_t number,
                               std::string &error);

// Forgets the transaction in hand, if there is one.
void fwlog_stream_abandon(fwlog_stream &stream);

// Fills session from the content of a session message, "key=value;key=value".
void fwlog_session_from(fwu_session &session, std::string_view content);

#endif
