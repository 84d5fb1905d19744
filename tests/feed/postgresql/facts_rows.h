// Answers of a catalogue that is not there.
#ifndef TESTS_FEED_POSTGRESQL_FACTS_ROWS_H
#define TESTS_FEED_POSTGRESQL_FACTS_ROWS_H

#include "feed/postgresql/facts.h"

#include <array>
#include <string>
#include <vector>

using facts_row = std::array<std::string, 4>; // kind, OID, number, text

inline pgs_result facts_rows(const std::vector<facts_row> &rows)
{
    pgs_result result(PQmakeEmptyPGresult(nullptr, PGRES_TUPLES_OK));
    PGresAttDesc columns[4] = {};
    char name[] = "column";
    for (PGresAttDesc &column : columns)
        column.name = name;
    PQsetResultAttrs(result.get(), 4, columns);
    for (size_t i = 0; i < rows.size(); i++)
        for (size_t j = 0; j < 4; j++) {
            std::string text = rows[i][j];
            PQsetvalue(result.get(), static_cast<int>(i), static_cast<int>(j), text.data(),
                       static_cast<int>(text.size()));
        }
    return result;
}

#endif
