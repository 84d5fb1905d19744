// Lines of JSON against a schema of docs/.
#ifndef TESTS_SUPPORT_SCHEMA_CHECK_H
#define TESTS_SUPPORT_SCHEMA_CHECK_H

#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <string>

constexpr int SCHEMA_CHECK_ABSENT = 77; // status: the validator is not installed
constexpr const char *SCHEMA_CHECK_SKIPPED =
    "no validator of JSON schemas (Debian package python3-jsonschema)";

// Status 0 when every line keeps to docs/changes.schema.json, or with wrong none does; what
// it printed says which are not as they should be.
inline run_result schema_check(const std::string &lines, bool wrong = false)
{
    const tempdir dir;
    write_file(dir.file("lines"), lines);
    run_result result;
    // The Python found first need not be the one that Debian's packages belong to.
    for (const std::string python : {"python3", "/usr/bin/python3"}) {
        std::vector<std::string> words = {"/usr/bin/env", python,
                                          KESTRO_SOURCE_DIR "/tests/support/schema_check.py"};
        if (wrong)
            words.emplace_back("--wrong");
        words.insert(words.end(),
                     {KESTRO_SOURCE_DIR "/docs/changes.schema.json", dir.file("lines")});
        result = run_program(words);
        if (result.status != SCHEMA_CHECK_ABSENT)
            break;
    }
    // env has no such program.
    if (result.status == 127)
        result.status = SCHEMA_CHECK_ABSENT;
    return result;
}

#endif
