// How to reach the server: what both subcommands take.
#include "tools/capship/capship.h"

#include "ship/subject.h"

ship_server_options capship_server;

bool capship_take_stream(const char *word)
{
    capship_server.stream = word;
    return ship_name_ok(word);
}

outcome capship_check_server()
{
    const ship_server_options &given = capship_server;
    if (given.url == nullptr)
        return cli_usage("which server? (nats://HOST:4222)", "--server");
    if (given.stream == nullptr)
        return cli_usage("which stream?", "--stream");
    if ((given.cert == nullptr) != (given.key == nullptr))
        return cli_usage("a certificate and its key go together", "--cert");
    return {};
}
