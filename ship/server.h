// A NATS server with JetStream: the connection, its stream, and what the stream has last.
//
// A connection that is lost is given up with all that is not acknowledged; a new one begins where
// the stream ends.
#ifndef SHIP_SERVER_H
#define SHIP_SERVER_H

#include "ship/place.h"
#include "util/outcome.h"

#include <cstdint>
#include <nats/nats.h>
#include <string>

struct ship_server_options {
    const char *url = nullptr; // one or more, with commas between them
    const char *stream = nullptr;
    const char *creds = nullptr; // file of credentials; null: none
    const char *ca = nullptr;    // files for TLS; null: not given
    const char *cert = nullptr;
    const char *key = nullptr;
    uint64_t timeout_s = 60; // of silence after which a server is taken for gone
};

struct ship_server {
    natsConnection *connection = nullptr;
    jsCtx *js = nullptr;
    ship_server() = default;
    ~ship_server();
    ship_server(const ship_server &) = delete;
    ship_server &operator=(const ship_server &) = delete;
};

// Connects.  how: what is said of asynchronous messages; may be null.  OUTCOME_LOST: there is no
// server at this moment.
outcome ship_connect(ship_server &server, const ship_server_options &options, const char *name,
                     jsOptions *how);

// OUTCOME_LOST when the connection is no more.
outcome ship_alive(const ship_server &server);

// What went wrong with a call: OUTCOME_LOST with the server's text.
outcome ship_failed(const char *what, natsStatus status, jsErrCode code = jsErrCode(0));

// A failure of this kind that says so.
outcome ship_no_stream(const ship_server_options &options, outcome_kind kind);

struct ship_stream {
    uint64_t first = 0; // sequences; last 0: it has never had a message
    uint64_t last = 0;
    uint64_t messages = 0;
};

// OUTCOME_BAD: there is no such stream.
outcome ship_look(ship_stream &stream, ship_server &server, const ship_server_options &options);

// Makes the stream, if it is missing.
outcome ship_create(ship_server &server, const ship_server_options &options, int64_t replicas);

// The place of a message in the stream.  found: false: it is not there (any more).  OUTCOME_BAD: it
// is there, and is none of ours.
outcome ship_place_at(ship_place &place, bool &found, ship_server &server,
                      const ship_server_options &options, uint64_t sequence);

// That of a message; false: it has none.
bool ship_place_of(ship_place &place, natsMsg *message);

#endif
