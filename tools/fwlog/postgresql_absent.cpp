// fwlog postgresql in a build without libpq: says what was missing.
#include "tools/fwlog/fwlog.h"

#include <cstdio>

int fwlog_postgresql_main(int, char **)
{
    fputs("fwlog: postgresql is not part of this build: libpq was missing when it was made "
          "(Debian package libpq-dev)\n",
          stderr);
    return FWLOG_EXIT_FAILED;
}
