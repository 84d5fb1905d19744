// Texts of a database whose encoding is not UTF-8, where the server does not convert them: it
// fails at the first character that has no UTF-8, wherever that stands, in a value or a name.
//
// Each character becomes what the server makes of it, who is asked once for each; a byte of one
// that the server cannot convert becomes three bytes that are no UTF-8 (the surrogate U+DC80 and
// so on): what reads the text sees that, and the byte can be given back.
#ifndef FEED_POSTGRESQL_ENCODING_H
#define FEED_POSTGRESQL_ENCODING_H

#include "feed/postgresql/server.h"

#include <string>
#include <string_view>

// What begins it is told with this text.
std::string pge_text(const pgs_server &server, const PGresult *result);

// Whether an error is that of a text which the server cannot convert, and texts could be had as
// they are instead.
bool pge_is_failure(const pgs_server &server, const PGresult *result);

// From the next connection on the server converts no texts.
void pge_begin(pgs_server &server);

// Appends a text of the server as UTF-8.  OUTCOME_LOST when the server does not tell how.
outcome pge_from_server(std::string &out, const pgs_server &server, std::string_view bytes);

// Appends a text in UTF-8 as the server takes it, where it does not convert; a character that its
// encoding lacks is "?".
outcome pge_query(std::string &out, const pgs_server &server, std::string_view utf8);

// Brings the values of an answer to UTF-8, where the server does not.
outcome pge_answer(const pgs_server &server, const pgs_result &result);

// Appends a message of the stream with its texts in UTF-8.  One that is no message stays as it is
// from there on.
outcome pge_message(std::string &out, const pgs_server &server, std::string_view bytes);

// Closes the connection that is kept for these questions.
void pge_rest(const pgs_server &server);

#endif
