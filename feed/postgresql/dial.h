// One connection being made, with an end to it whatever the server does: sends nothing, sends a
// byte now and then, or never stops to send.
#ifndef FEED_POSTGRESQL_DIAL_H
#define FEED_POSTGRESQL_DIAL_H

#include "feed/postgresql/parameters.h"

// What the server says of itself meanwhile ("NOTICE: ...") would only disturb, and is not made fit
// for a terminal.
void pgs_drop_notices(PGconn *connection);

// Goes from one host to the next, each for connect_timeout at most.  A signal to stop ends it:
// OUTCOME_STOPPED; so does a wait that fails: OUTCOME_FAILED.  Else the connection is there, good
// or bad, and why says what went wrong with a bad one, in libpq's lines.
outcome pgs_dial(pgs_connection &connection, const pgs_parameters &parameters, std::string &why);

#endif
