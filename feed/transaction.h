// Transactions of a source on their way into the log: rows become record images,
// whole transactions reach the writer.
//
// What a source has to keep to, and may rely on:
// - Transactions come in the order of their commits, each with a position that is greater
//   than those before.  What the log has, by its last position, is passed over whole: after
//   a restart a source may send again from wherever it likes, as long as it leaves no gap.
// - Nothing of a transaction is in the log before feed_commit.  Whatever ends earlier, a row
//   that does not fit, a source that is gone, a kill, leaves the log at the commit before,
//   and the source begins with this transaction again.
// - A commit that feed_commit took may not be on disk yet.  A source that forgets what it is
//   told is done is told so only up to fwu_writer_logged_lsn, and only after
//   fwu_writer_acknowledge: then the next run refuses a log that ends before.
// - What a source knows of a table's columns it says by feed_describe (feed/source.h) before the
//   table's changes, and again when it may be something else; the log keeps it beside the layout.
// - After a failure the transaction in hand is given up with feed_abandon.
#ifndef FEED_TRANSACTION_H
#define FEED_TRANSACTION_H

#include "feed/image.h"
#include "feed/table.h"
#include "fwutil/fwu_session.h"
#include "fwutil/fwu_writer.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct feed_totals {
    uint64_t transactions = 0; // appended to the log
    uint64_t inserts = 0;
    uint64_t updates = 0;
    uint64_t deletes = 0;
    uint64_t empty = 0;   // transactions without a change for the log
    uint64_t skipped = 0; // transactions that the log had already
    feed_marked marked;   // items of their images
};

struct feed_transaction {
    fwu_writer *writer = nullptr;
    feed_image_work work;
    feed_totals totals;        // of whole transactions
    bool session_told = false; // that a session message came late

    // The transaction in hand.
    bool open = false;     // between begin and commit
    bool skipping = false; // the log has it
    bool begun = false;    // the writer has its first change; only while open
    bool has_session = false;
    bool session_changed = false; // since its last change that the writer has
    fwu_commit commit;
    std::string content;           // of its session message
    std::vector<std::string> data; // further data elements of its session
    feed_totals changes;
    uint64_t truncated_before = 0; // work.truncated at its begin
    feed_marked marked_before;     // work.marked at its begin

    fwu_session session;
    std::vector<unsigned char> before;
    std::vector<unsigned char> after;
};

// The prefix of the messages in a source's log that are session messages.
constexpr std::string_view FEED_SESSION_PREFIX = "session";

// Begins a transaction, none being open; one that the log has already will be passed over.
void feed_begin(feed_transaction &tx, const fwu_commit &commit);

// Takes "key=value;key=value" as the transaction's session from here on.  That it comes
// behind the first change is worth a note, once.
void feed_set_session(feed_transaction &tx, std::string_view content);

// Adds a change.  A null fresh is a delete, a null old an insert.  OUTCOME_BAD when its
// rows cannot become images, OUTCOME_FAILED when the log could not be written.
outcome feed_change(feed_transaction &tx, feed_table &table, const feed_row *fresh,
                    const feed_row *old);

// Adds a mark, behind the changes that came so far.  Its reason may be of any bytes and length:
// what has no place in the log is replaced, or cut off.
outcome feed_put_mark(feed_transaction &tx, const fwu_mark &mark);

// Adds the mark that a table, by its schema and name in the source, was emptied.
outcome feed_put_truncate(feed_transaction &tx, const feed_table &table, std::string_view schema,
                          std::string_view name);

// Hands the whole transaction to the log.  After a failure it is forgotten.
outcome feed_commit(feed_transaction &tx);

// Tells what the last change or session gave cause to tell; place stands in front of it.
void feed_tell_notes(feed_transaction &tx, const std::string &place = {});

// Tells what was wrong with what came in, and in which transaction, if one is in hand:
// OUTCOME_BAD becomes OUTCOME_FAILED, all else stays.
outcome feed_tell_bad(const feed_transaction &tx, outcome done);

// Forgets the transaction in hand, if there is one.
void feed_abandon(feed_transaction &tx);

// Fills session from the content of a session message.
void feed_session_from(fwu_session &session, std::string_view content);

#endif
