// A configuration file that nobody wrote: both of its readers take or refuse it alike, and what is
// taken keeps to what other parts rely on.
//
// An input is the file.
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_source_name.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"

#include <set>

struct taken {
    fuzz_said said;
    fwu_config config;
};

static taken take(const std::string &path)
{
    taken found;
    found.said = fuzz_listen([&] { return fwu_config_read(found.config, path.c_str()); });
    return found;
}

static void check_dataset(const fwu_dataset &dataset)
{
    const fwu_layout &layout = dataset.layout;
    fuzz_expect(fwu_database_name_ok(layout.dbname), "a database's name");
    fuzz_expect(fwu_dataset_name_ok(layout.dsetname), "a dataset's name");
    fuzz_expect(fwu_layout_image_length(layout) <= 16777216, "an image is too long");
    std::set<std::string> names;
    for (const fwu_item &item : layout.items) {
        const fwu_item_type *type = fwu_item_type_of(item.type);
        fuzz_expect(type != nullptr && fwu_item_size_ok(*type, item.size), "an item's size");
        fuzz_expect(item.count >= 1 && item.count <= FWU_ITEM_COUNT_MAX, "an item's count");
        fuzz_expect(!item.name.empty() && item.name.size() <= FWU_ITEM_NAME_MAX, "an item's name");
        fuzz_expect(names.insert(item.name).second, "an item comes twice");
        fuzz_expect(item.item_aux >= 0 && item.item_aux <= fwu_item_digits(item.type, item.size),
                    "decimal places");
    }
    const auto items = static_cast<int>(layout.items.size());
    fuzz_expect(dataset.null_map >= -1 && dataset.null_map < items, "a null map's place");
    if (dataset.null_map >= 0)
        fuzz_expect(fwu_null_map_ok(layout.items, static_cast<size_t>(dataset.null_map)),
                    "a null map");
    std::set<int> keys;
    for (const int key : dataset.key)
        fuzz_expect(key >= 0 && key < items && key != dataset.null_map && keys.insert(key).second,
                    "a key");
}

static void check(const fwu_config &config)
{
    fuzz_expect(!config.log_directory.empty(), "taken without a log directory");
    fuzz_expect(config.log_file_size > 0, "a file size");
    fuzz_expect(config.sync_interval_ms >= 0, "an interval");
    fuzz_expect(config.log_mode >= -1 && config.log_mode <= 0777, "a mode");
    std::set<std::pair<std::string, std::string>> datasets;
    for (const fwu_dataset &dataset : config.datasets) {
        check_dataset(dataset);
        fuzz_expect(datasets.emplace(dataset.layout.dbname, dataset.layout.dsetname).second,
                    "a dataset comes twice");
    }
    for (const fwu_column &column : config.columns) {
        std::vector<std::string> parts;
        fuzz_expect(fwu_source_name_parts(parts, column.table) && parts.size() == 2,
                    "a column's table");
        fuzz_expect(column.width >= 0 && column.width <= FWU_TEXT_SIZE_MAX, "a column's width");
    }
    for (const fwu_default_width &row : config.default_widths)
        fuzz_expect(row.width >= 1 && row.width <= FWU_TEXT_SIZE_MAX, "a width");
}

static void run(std::string_view input)
{
    const std::string path = fuzz_path("some.cfg");
    fuzz_put(path, input);
    const taken once = take(path);
    const taken twice = take(path);
    fuzz_expect(once.said == twice.said, "read twice");
    fwu_reader_config reader;
    const fuzz_said said = fuzz_listen([&] { return fwu_config_read(reader, path.c_str()); });
    fuzz_expect(said == once.said, "readers and writers are of two opinions");
    if (once.said.status != 0) {
        fuzz_expect(once.said.err.find(path) != std::string::npos,
                    "refused without the file's name");
        return;
    }
    fuzz_expect(once.said.err.empty(), "taken, and something was said");
    fuzz_equal(reader.log_directory, once.config.log_directory, "log directories");
    fuzz_equal(reader.stops_at_truncate, once.config.stops_at_truncate, "stops at a truncate");
    check(once.config);
    // Blank lines and comments say nothing.
    fuzz_put(path, "# begins\n\n" + std::string(input) + "\n# ends\n");
    const taken longer = take(path);
    fuzz_equal(longer.said.status, 0, "refused with comments");
    fuzz_equal(longer.config.datasets.size(), once.config.datasets.size(), "with comments");
}

static std::vector<std::string> seeds()
{
    return {"log-directory log\n",
            "# a comment\nlog-directory \"/var/lib/a b\"\nlog-file-size 4M\nbyte-order big\n"
            "text-encoding iso-8859-1\nsync interval 50\nlog-mode 0640\nlog-keep 7d 20G\n"
            "database SALES\ndataset ORDERS\nitem NO I 4 key\nitem NET P 5 scale=2\n"
            "item QTY I 2 x4\nitem RATE E 8\nitem Z Z 3 scale=1\nitem NULLS X 5 null-map\n",
            "log-directory log\nvalues mark\ntruncate stop\nskip-table sales.audit\n"
            "table sales.orders values=error\ncolumn sales.orders.no key item=NUMBER\n"
            "column sales.orders.\"no. te\" width=20 values=mark\ndefault-width jsonb 200\n"
            "default-width 32\n",
            "log-directory log\nlog-keep acknowledged\ndatabase A-1\ndataset B+*/?'#%&\n"
            "from public.t\nitem A U 32767 x2\n"};
}

static std::vector<std::string> words()
{
    return {"log-directory ",
            "log-file-size ",
            "byte-order ",
            "text-encoding ",
            "sync ",
            "log-mode ",
            "log-keep ",
            "database ",
            "dataset ",
            "item ",
            "table ",
            "column ",
            "skip-table ",
            "values",
            "truncate ",
            "default-width ",
            "null-map",
            "key",
            "scale=",
            "width=",
            "commit",
            "interval ",
            "none",
            "utf-8",
            "little",
            "mark",
            "error",
            "stop",
            "acknowledged",
            " x",
            "\"\""};
}

constinit const fuzz_target fuzz_configuration = {
    .name = "configuration", .longest = 4096, .run = run, .seeds = seeds, .words = words};
