// fwlog load in a build without a JSON parser: says what was missing.
#include "tools/fwlog/fwlog.h"

#include <cstdio>

int fwlog_load_main(int, char **)
{
    fputs("fwlog: load is not part of this build: the JSON library was missing when it was made "
          "(Debian package nlohmann-json3-dev)\n",
          stderr);
    return FWLOG_EXIT_FAILED;
}
