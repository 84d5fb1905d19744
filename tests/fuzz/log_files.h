// Forward logs as inputs: several log files one behind the other, whose checksums, tags and
// chains can be made right, so that changes of an input come through to what they stand for.
#ifndef TESTS_FUZZ_LOG_FILES_H
#define TESTS_FUZZ_LOG_FILES_H

#include "fwutil/fwu_ack.h"

#include <string>
#include <string_view>
#include <vector>

// Splits bytes in front of each beginning of a log file, which is dropped; three at most.
std::vector<std::string> fuzz_log_split(std::string_view bytes);

// Makes checksums, tags, chains and the file's own number right, as far as its entries go.
void fuzz_log_seal(std::string &file, int32_t sequence);

// A commit entry, found by lengths alone.
struct fuzz_log_commit {
    int32_t sequence = 0;
    int32_t tag = 0;
    int64_t end = 0; // offset behind it
    fwu_commit commit;
    fwu_identity identity;
};
std::vector<fuzz_log_commit> fuzz_log_commits(const std::vector<std::string> &files);

// Makes the directory anew with these files.
void fuzz_log_put(const std::string &directory, const std::vector<std::string> &files);

// The files of a directory by their names, and what they hold.
std::vector<std::pair<std::string, std::string>> fuzz_log_files(const std::string &directory);

// Three transactions in two log files: layouts with their source, sessions, marks, whole values,
// texts and numbers.
std::vector<std::string> fuzz_log_written(bool big_endian);

#endif
