// Which items a table's columns become when the configuration does not describe it.
#ifndef FEED_POSTGRESQL_CATALOGUE_H
#define FEED_POSTGRESQL_CATALOGUE_H

#include "feed/names.h"
#include "feed/postgresql/facts.h"
#include "feed/postgresql/pgoutput.h"
#include "fwutil/fwu_config.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <vector>

// A message file takes both images of an update and the longest header up to this length of
// an image.
constexpr int32_t PGC_IMAGE_MAX = 16'300;

// What the choice rests on.
struct pgc_rules {
    const fwu_config &config;
    const pgf_facts &facts;
    feed_names &names;
    std::vector<std::string> &notes;    // what is to be told of names
    fwu_encoding encoding = FWU_LATIN1; // of the log's texts
};

// What a column became: the item at the same index, and for what reason.
struct pgc_choice {
    std::string column;
    std::string item;
    std::string type;     // as the server writes it; empty: it does not know it any more
    int32_t width = 0;    // bytes of the item
    int32_t wanted = 0;   // the same, if records could be as long as they like
    bool shrinks = false; // nobody has given it
    bool shrunk = false;  // width is less than wanted
    bool bounded = false; // no value of the type is longer
    std::string why;      // what gave the width: "its type", "width= in shop.cfg"
};

// Makes the dataset of a table from its columns: an item each, and a null map.  Its dbname and
// dsetname are those of the dataset.  Widths that nobody has given shrink until the record fits
// a message file, all to one length, where that is possible.  OUTCOME_BAD, with the reason and the
// remedy, when the configuration gives names that cannot be, or there is no column.
outcome pgc_make_dataset(fwu_dataset &dataset, std::vector<pgc_choice> &choices,
                         const pgc_rules &rules, const pgo_relation &relation);

#endif
