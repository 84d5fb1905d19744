// fwlog: writes forward logs from PostgreSQL, and tells about them.  What it has is listed
// in program.cpp.
#include "fwutil/fwu_error.h"
#include "tools/fwlog/fwlog.h"
#include "util/standard_files.h"

#include <csignal>

int main(int argc, char **argv)
{
    fill_standard_files();
    fwu_set_program(fwlog_program.name);
    // A file size limit is an error of a write like a full disk.
    signal(SIGXFSZ, SIG_IGN);
    return cli_main(fwlog_program, argc, argv);
}
