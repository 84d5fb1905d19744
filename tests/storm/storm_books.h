// The accounts behind a storm: what the log has, and where each of its records has come to.  What
// is wrong is told in words, a few of each kind; the counts are for the summary.
#ifndef TESTS_STORM_STORM_BOOKS_H
#define TESTS_STORM_STORM_BOOKS_H

#include "tests/storm/storm_scene.h"

#include <map>
#include <string>
#include <vector>

// A change as JSON has it: its number in the log, and operation and values as they stand there.
struct storm_change {
    int number = 0;
    std::string values;
};

struct storm_books {
    const storm_disk &disk;
    storm_scene &scene;
    std::vector<storm_change> log; // all of it
    std::vector<std::string> faults;
    std::map<std::string, long> counts;
};

// Reads the log's records; each has the number behind the one before it.
void books_read_log(storm_books &books);

// Each capture file has each record of the log, in order; one that comes twice comes twice running,
// once for each run that was ended by force or by an error at the most.
void books_check_captures(storm_books &books);

// What was taken out of the queue, by whom it may be: the same.
void books_check_taken(storm_books &books);

// What programs that follow have printed: each run goes on without a gap, the last one to the end.
void books_check_followers(storm_books &books);

// Each record that a writer was told is in the file was taken once; in_hand: readers that were
// killed while they may have had one.
void books_check_mail(storm_books &books, uint32_t in_hand);
void books_check_post(storm_books &books);

// Transactions that the server has, by their numbers, are in the log once and in the order of their
// positions; so are those that clients were told are committed, in their order.
void books_check_transactions(storm_books &books, const std::vector<std::string> &committed);

// The programs that look for damage find none.
void books_check_files(storm_books &books);

#endif
