// tmf: shows, reads, writes and mends message files.  What it has is listed in program.cpp.
#include "tools/tmf/tmf_tool.h"
#include "util/standard_files.h"

#include <csignal>

int main(int argc, char **argv)
{
    fill_standard_files();
    // A closed pipe and a file size limit are errors of a write, told and cleaned
    // up after like others.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    return cli_main(tmf_program, argc, argv);
}
