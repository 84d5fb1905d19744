// fwlog postgresql in a build without libpq: says what was missing.
#include "tools/fwlog/postgresql.h"

outcome fwlog_postgresql(const fwlog_postgresql_options & /*options*/)
{
    return outcome_failed("postgresql is not part of this build: libpq was missing when it was "
                          "made (Debian package libpq-dev)");
}
