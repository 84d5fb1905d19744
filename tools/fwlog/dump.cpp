// fwlog dump: prints a log, or a range of it.
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_log.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/position.h"
#include "tools/fwlog/print.h"

#include <cstdio>
#include <cstring>

struct dump_options {
    const char *cfg = nullptr;
    bool hex = false;
    fwu_position from;
    fwu_position to;
};

struct dump_state {
    dump_options options;
    fwlog_printer printer;
};

static int scan_options(dump_options &options, int argc, char **argv)
{
    for (int i = 0; i < argc; i++) {
        const char *const word = argv[i];
        const bool is_from = strcmp(word, "--from") == 0;
        if (strcmp(word, "-cfg") == 0) {
            if (++i == argc)
                return fwlog_usage_error("option lacks its file name", word);
            options.cfg = argv[i];
        } else if (is_from || strcmp(word, "--to") == 0) {
            if (++i == argc)
                return fwlog_usage_error("option lacks its position", word);
            if (!fwu_position_parse(argv[i], is_from ? options.from : options.to))
                return fwlog_usage_error("not a position (25, 1-25 or 1-25.340)", argv[i]);
        } else if (strcmp(word, "--hex") == 0) {
            options.hex = true;
        } else {
            return fwlog_usage_error(word[0] == '-' ? "unknown option" : "unexpected word", word);
        }
    }
    return FWLOG_EXIT_OK;
}

static bool before_range(const dump_state &state, const fwu_log_file &file, int32_t tag)
{
    return fwlog_position_given(state.options.from) &&
           fwlog_position_compare(file, tag, state.options.from) < 0;
}

static bool behind_range(const dump_state &state, const fwu_log_file &file, int32_t tag)
{
    return fwlog_position_given(state.options.to) &&
           fwlog_position_compare(file, tag, state.options.to) > 0;
}

// Layouts before the range are read, for the images inside it, but not printed.
static int visit(dump_state &state, const fwu_walk_item &item)
{
    const bool is_entry = item.what == FWU_WALK_ENTRY;
    const int32_t first = is_entry ? item.entry.tag : item.what == FWU_WALK_FILE ? 0 : INT32_MAX;
    if (behind_range(state, *item.file, first))
        return 1;
    std::string &out = state.printer.out;
    out.clear();
    fwlog_print_item(state.printer, item);
    if (before_range(state, *item.file, is_entry ? item.entry.tag : INT32_MAX))
        return 0;
    fwrite(out.data(), 1, out.size(), stdout);
    return ferror(stdout) != 0 ? 1 : 0;
}

int fwlog_dump_main(int argc, char **argv)
{
    dump_state state;
    const int usage = scan_options(state.options, argc, argv);
    if (usage != FWLOG_EXIT_OK)
        return usage;
    state.printer.hex = state.options.hex;
    fwu_config config;
    if (fwu_config_read(config, state.options.cfg) != 0)
        return FWLOG_EXIT_FAILED;
    const int walked = fwu_log_walk(
        config.log_directory, [&state](const fwu_walk_item &item) { return visit(state, item); });
    return fwlog_flush_output(walked < 0 ? FWLOG_EXIT_FAILED : FWLOG_EXIT_OK);
}
