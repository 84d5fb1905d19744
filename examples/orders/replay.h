// Replays capture records, of the order-entry example as a rule, into tables held in memory
// and compares them with the database's final contents.  A second, naive reading
// of the column and image formats: rows are kept as the text of their columns.
#ifndef EXAMPLES_ORDERS_REPLAY_H
#define EXAMPLES_ORDERS_REPLAY_H

#include <map>
#include <string>
#include <vector>

struct replay_item {
    std::string name; // as in the configuration: ORDER-NO
    char type = 0;
    int size = 0;
    int count = 1;
    int scale = 0;
    bool null_map = false;
};

struct replay_table {
    std::string dbname;
    std::string dsetname;
    std::vector<replay_item> items;
    std::vector<std::string> key;            // item names
    std::map<std::string, std::string> rows; // key columns' text to the row's text
    int changes = 0;
};

struct replay {
    std::map<std::string, replay_table> tables; // by "depot.items"
    std::vector<std::string> errors;            // what did not fit, in words
};

// Key columns by table: {"depot.stock", {"DEPOT-NO", "ITEM-NO"}}.
using replay_keys = std::map<std::string, std::vector<std::string>>;

// Reads databases, datasets and items from a configuration file: that of the
// order-entry example, or of other tables whose keys are given.
replay replay_open(const std::string &cfg);
replay replay_open(const std::string &cfg, const replay_keys &keys);

// Width in characters of a table's row.
int replay_width(const replay_table &table);

// Applies one text record that has a header without extras (62 characters).
void replay_line(replay &state, const std::string &line);

// Applies every line of a capture file; line ends belong to no record.
void replay_file(replay &state, const std::string &path);

// Applies one message record whose header has the fields of -exthdr -yyyy -recnum
// and whose images are as the log has them, numbers in little-endian order.
void replay_message(replay &state, const std::string &record);

// Compares all tables with the final contents; what differs goes to errors.
void replay_compare(replay &state, const std::string &final_csv);

#endif
