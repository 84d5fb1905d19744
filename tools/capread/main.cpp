// capread: prints the records of capture files as JSON or CSV.
#include "tools/capread/capread.h"
#include "util/standard_files.h"

#include <csignal>

int main(int argc, char **argv)
{
    fill_standard_files();
    // A closed pipe and a file size limit are errors of a write, told like others: the record
    // stays in the file.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    return cli_main(capread_row, KESTRO_VERSION, argc, argv);
}
