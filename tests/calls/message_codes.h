// Which codes a call of the message-file library gives when one of its system calls fails:
// what tmf.h promises, by the place in the file and what was done there.
#ifndef TESTS_CALLS_MESSAGE_CODES_H
#define TESTS_CALLS_MESSAGE_CODES_H

#include "tests/calls/call_matrix.h"

#include <set>
#include <string>

// name: of the call.  own_slot: offset of the slot that an open takes, 0 for none.
// The codes; 0 among them when the call may as well do its work.
std::set<int> right_codes(const std::string &name, const struck_call &struck, int64_t own_slot);

// The text of the code that this failure gave.
std::string right_text(int code, const struck_call &struck);

#endif
