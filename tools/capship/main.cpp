// capship: forward logs across hosts, through NATS JetStream.
#include "fwutil/fwu_error.h"
#include "tools/capship/capship.h"
#include "util/standard_files.h"

#include <csignal>

int main(int argc, char **argv)
{
    fill_standard_files();
    fwu_set_program(capship_program.name);
    // A closed connection and a file size limit are errors of a write, told like others.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    return cli_main(capship_program, argc, argv);
}
