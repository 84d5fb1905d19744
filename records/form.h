// What a capture file's records look like: Kestro's options of the file.
#ifndef RECORDS_FORM_H
#define RECORDS_FORM_H

#include "capture/hdrlayout.h"

#include <cstdint>

struct rec_form {
    bool exthdr = false;
    bool yyyy = false;
    bool recnum = false;
    bool fga = false;
    bool text = false;           // lines of text columns, not images
    bool asciirev = false;       // numbers of the other byte order, with text
    bool dirty = false;          // with text
    bool bwfmt = false;          // with text
    int32_t info = HDRKIND_NONE; // the header item in whose place the session's info text stands
};

#endif
