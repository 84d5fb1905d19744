// Names of the source's tables and columns as one text: "sales.orders.note".  A part that could
// be taken for something else is quoted as SQL quotes it, so that the text means one name only
// and the configuration takes it as it stands.
#ifndef FWUTIL_FWU_SOURCE_NAME_H
#define FWUTIL_FWU_SOURCE_NAME_H

#include <string>
#include <string_view>
#include <vector>

// The canonical text, by which names are compared.  Quoted are parts that are empty or hold a
// dot, a double quote, a blank, "#" or "="; one that holds a control character is written as
// U&"a\000Ab".
std::string fwu_source_name(std::string_view schema, std::string_view table);
std::string fwu_source_name(std::string_view schema, std::string_view table,
                            std::string_view column);

// Appends one part of it.
void fwu_source_name_put(std::string &out, std::string_view part);

// Takes a name apart.  Parts without quotes are taken byte for byte.  False: it is none.
bool fwu_source_name_parts(std::vector<std::string> &parts, std::string_view name);

#endif
