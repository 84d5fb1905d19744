// A forward-log library whose answers a test sets: it plays a list of records
// through the callback, answers the item and session queries, and notes what it
// was asked.  Compiled into tests, and into the shared library that takes the
// place of the real one under the built program.
#ifndef TESTS_SUPPORT_FAKE_FWUTIL_H
#define TESTS_SUPPORT_FAKE_FWUTIL_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct fake_item {
    std::string name;
    char type = 'X';
    int32_t size = 0;
    int32_t count = 1;
    int32_t item_aux = 0;
};

struct fake_record {
    std::string dbname;
    std::string dsetname;
    int32_t logtime = 0;
    int32_t opcode = 3;
    int32_t recnum = 0;
    std::optional<std::string> before; // image bytes, or a null image
    std::optional<std::string> after;
    std::optional<int32_t> reclen;               // default: the length of the image given
    std::optional<std::vector<fake_item>> items; // from this record on
    std::function<void()> first;                 // done before it is delivered
};

struct fake_fwutil {
    // What the library answers.
    std::vector<fake_item> items;
    std::map<std::string, std::string> session; // entries by key
    std::vector<std::string> session_data;
    int generation = 0;
    int sequence = 0;
    int tag = 0;
    std::vector<fake_record> records;
    int process_result = 0;

    // What it was asked: "verbose 1", "process cfg=a stat=(null) start=25", ...
    std::vector<std::string> calls;
    void (*on_call)(const std::string &call) = nullptr;
    std::vector<int> results; // of the callback, record by record
    size_t next_item = 0;
};

inline fake_fwutil g_fwu;

#endif
