// fwlog load in a build without a JSON parser: says what was missing.
#include "tools/fwlog/load.h"

outcome fwlog_load(const fwlog_load_options & /*options*/)
{
    return outcome_failed("load is not part of this build: the JSON library was missing when it "
                          "was made (Debian package nlohmann-json3-dev)");
}
