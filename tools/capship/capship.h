// The rows of capship's subcommands, and the options that both have.
#ifndef TOOLS_CAPSHIP_CAPSHIP_H
#define TOOLS_CAPSHIP_CAPSHIP_H

#include "ship/server.h"
#include "util/cli.h"

extern const cli_command capship_push_row;
extern const cli_command capship_pull_row;

extern const cli_program capship_program;

extern ship_server_options capship_server;

constexpr char CAPSHIP_LACKING[] = "option lacks its value";
constexpr cli_kind CAPSHIP_FILE = {
    .word = "FILE", .lacking = CAPSHIP_LACKING, .may_be_empty = false};
constexpr cli_kind CAPSHIP_URL = {.word = "URL", .lacking = CAPSHIP_LACKING, .may_be_empty = false};
constexpr cli_kind CAPSHIP_TIMEOUT = {.word = "SECONDS",
                                      .lacking = CAPSHIP_LACKING,
                                      .bad = "--timeout takes 3 to 3600 seconds",
                                      .smallest = 3,
                                      .largest = 3600,
                                      .may_be_empty = false};
constexpr cli_kind CAPSHIP_NAME = {
    .word = "NAME",
    .lacking = CAPSHIP_LACKING,
    .bad = "a name has no blanks, points, slashes, \"*\", \">\" or \"%\"",
    .may_be_empty = false};

bool capship_take_stream(const char *word);

constexpr cli_option CAPSHIP_SERVER = {"--server", CAPSHIP_URL, &capship_server.url};
constexpr cli_option CAPSHIP_STREAM = {"--stream", CAPSHIP_NAME, capship_take_stream};
constexpr cli_option CAPSHIP_CREDS = {"--creds", CAPSHIP_FILE, &capship_server.creds};
constexpr cli_option CAPSHIP_CA = {"--ca", CAPSHIP_FILE, &capship_server.ca};
constexpr cli_option CAPSHIP_CERT = {"--cert", CAPSHIP_FILE, &capship_server.cert};
constexpr cli_option CAPSHIP_KEY = {"--key", CAPSHIP_FILE, &capship_server.key};
constexpr cli_option CAPSHIP_SILENCE = {"--timeout", CAPSHIP_TIMEOUT, &capship_server.timeout_s};

// Whether what is needed was given, and what goes together goes together.
outcome capship_check_server();

#endif
