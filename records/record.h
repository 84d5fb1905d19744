// A capture record as the change that it was made of, as far as it tells.
//
// A record is begun with its header, which tells its length, and taken when all of it is there.
#ifndef RECORDS_RECORD_H
#define RECORDS_RECORD_H

#include "records/layouts.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct rec_record {
    rec_layouts layouts;
    rec_header header;
    // Whether records with such names are wanted, or may be; empty: all are.
    std::function<bool(const rec_header_names &names)> wants;
    std::string asked;              // key of the header that it was asked for last
    bool wanted = true;             // what it said
    rec_dataset *dataset = nullptr; // of the record that was begun; null: it is to be passed over
    size_t length = 0;              // of it, without a line end
    change made;                    // of the record taken last
    change_transaction transaction;
    std::vector<unsigned char> before; // images made of text
    std::vector<unsigned char> after;
};

// layouts are added behind it.
void rec_record_open(rec_record &record, const rec_form &form);

// Reads a header, of at least record.header.length bytes.  A record that is not wanted needs no
// layout, but where only the layout tells the length of a line.  OUTCOME_BAD: the header does not
// fit, or no layout is known.
outcome rec_record_begin(rec_record &record, std::string_view head);

// Makes the change of the whole record that was begun; it is valid until the next call and as
// long as bytes are.  OUTCOME_BAD: it is none of its layout.
outcome rec_record_take(rec_record &record, std::string_view bytes);

// The names in the header that was read last, for messages: "SALES.ORDERS".
const std::string &rec_record_name(const rec_record &record);

#endif
