// fwlog postgresql in a build without libpq: says what was missing.
#include "feed/postgresql/bridge.h"

outcome pgb_run(const pgb_options & /*options*/)
{
    return outcome_failed("postgresql is not part of this build: libpq was missing when it was "
                          "made (Debian package libpq-dev)");
}
