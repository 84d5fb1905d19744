// The subject of a message: the stream's prefix, the database, the dataset.
#ifndef SHIP_SUBJECT_H
#define SHIP_SUBJECT_H

#include <string>
#include <string_view>

// Appends ".SALES.ORDERS".  What may not stand in a part of a subject, and "%", is written as "%"
// and two hexadecimal digits; a name that is empty is "%".
void ship_subject_put(std::string &out, std::string_view dbname, std::string_view dsetname);

// Whether a name can be a stream's, and the front of its subjects.
bool ship_name_ok(std::string_view name);

#endif
