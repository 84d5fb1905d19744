// The list of targets.
#include "tests/fuzz/target.h"

static constexpr const fuzz_target *targets[] = {
    &fuzz_capture_records, &fuzz_configuration, &fuzz_forward_log,  &fuzz_json_lines,
    &fuzz_message_file,    &fuzz_options,       &fuzz_patterns,     &fuzz_replication,
    &fuzz_state_files,     &fuzz_status_file,   &fuzz_text_columns,
};

std::span<const fuzz_target *const> fuzz_targets()
{
    return targets;
}
