// What --create makes of the publication and around it.  Each statement is told before it runs.
#ifndef FEED_POSTGRESQL_CREATE_H
#define FEED_POSTGRESQL_CREATE_H

#include "feed/postgresql/server.h"
#include "util/outcome.h"

#include <string>
#include <vector>

// Makes the server's publication, of all tables, and lets all tables have something that
// identifies their rows, those of later on too.  minimal: of the tables that have it now, and
// no table is touched.
outcome pgb_create_publication(pgs_server &server, bool minimal);

// What it runs for that, in this order and without ";": what sees to tables of later on (nothing
// when that is there), what gives the tables that are there an identity, and the publication.
outcome pgb_later_tables_commands(pgs_server &server, std::vector<std::string> &commands);
outcome pgb_identity_commands(pgs_server &server, std::vector<std::string> &commands);
outcome pgb_publication_command(pgs_server &server, bool minimal, std::string &command);

// A publication of all tables is not made while there are tables whose updates and deletes the
// server would refuse from then on, whatever --create does: what is said of them, and the commands
// that let them have a key.
constexpr char PGB_UNSENT[] =
    "these tables have virtual generated columns and no key: once they are published, the server "
    "refuses their updates and deletes, those of the application, too; give each a key, such as "
    "this one, or publish others only, with --create=minimal";
outcome pgb_unsent_commands(pgs_server &server, std::vector<std::string> &commands);

// Tells a statement that --create runs.
void pgb_tell_statement(const std::string &statement);

#endif
