// The recorded stream, loaded into a log and replayed from its images, gives the
// contents that the database had at the end.
#include "feed/wal2json/stream.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwutil.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"
#include "tools/fwlog/dump_value.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <map>

static const std::string example = KESTRO_SOURCE_DIR "/examples/orders/";

using csv_record = std::vector<std::string>;

// Records of a CSV text; a quoted field may hold commas, line feeds and "".
static std::vector<csv_record> parse_csv(const std::string &text)
{
    std::vector<csv_record> records;
    csv_record record;
    std::string field;
    bool quoted = false;
    for (size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        if (quoted && c == '"' && text[i + 1] == '"') {
            field += text[++i];
        } else if (c == '"') {
            quoted = !quoted;
        } else if (!quoted && (c == ',' || c == '\n')) {
            record.push_back(std::move(field));
            field.clear();
            if (c == '\n')
                records.push_back(std::move(record));
            if (c == '\n')
                record.clear();
        } else {
            field += c;
        }
    }
    return records;
}

template <typename Float> static std::string shortest(const std::string &digits)
{
    Float value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    char text[64];
    return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

static std::string quoted(std::string text)
{
    std::string out = "\"";
    text.erase(text.find_last_not_of(' ') + 1);
    for (const char c : text) {
        if (c == '\t' || c == '\n') {
            out += c == '\t' ? "\\x09" : "\\x0A";
            continue;
        }
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + "\"";
}

// A value of the CSV file as the dump of its item shows it.
static std::string expected_value(const fwu_item &item, std::string value)
{
    const bool null = value == "\\N";
    switch (item.type) {
    case 'I':
        return null ? "0" : value;
    case 'P':
        return null ? "0." + std::string(static_cast<size_t>(item.item_aux), '0') : value;
    case 'E':
        if (null)
            return "0";
        return item.size == 4 ? shortest<float>(value) : shortest<double>(value);
    default:
        break;
    }
    if (null)
        return "\"\"";
    if (item.size == 1 && (value == "t" || value == "f"))
        value = value == "t" ? "T" : "F";
    if (item.size > 19 && item.size <= 26 && value.size() >= 19 && value[4] == '-' &&
        value[13] == ':') {
        if (value.size() == 19)
            value += '.';
        value.resize(static_cast<size_t>(item.size), '0');
    }
    return quoted(value);
}

// Rows of each dataset in the form of dump_image.
using contents = std::map<std::string, std::vector<std::string>>;

static contents expected_contents(const fwu_config &config)
{
    contents expected;
    const fwu_dataset *dataset = nullptr;
    for (const csv_record &record : parse_csv(read_file(example + "orders-final.csv"))) {
        std::string name = record[0];
        const bool opens_table = name[0] == '@';
        name.erase(0, opens_table ? 1 : 0);
        for (char &c : name)
            c = c == '_' ? '-' : static_cast<char>(toupper(c));
        if (opens_table) {
            for (const fwu_dataset &known : config.datasets) {
                if (known.layout.dbname + "." + known.layout.dsetname == name)
                    dataset = &known;
            }
            continue;
        }
        std::string row;
        std::string nulls;
        for (size_t i = 0; i + 1 < dataset->layout.items.size(); i++) {
            const fwu_item &item = dataset->layout.items[i];
            row += " " + item.name + "=" + expected_value(item, record.at(i + 1));
            nulls += record[i + 1] == "\\N" ? 'N' : '.';
        }
        expected[name].push_back(row + " NULL-MAP=\"" + nulls + "\"");
    }
    return expected;
}

// Takes a row away, which must be there.
static void take_away(std::map<std::string, int> &rows, const std::string &image)
{
    const auto found = rows.find(image);
    ASSERT_NE(found, rows.end()) << "the old row is not there";
    if (--found->second == 0)
        rows.erase(found);
}

static contents replayed_contents(const fwu_config &config, const std::string &directory)
{
    std::map<std::string, std::map<std::string, int>> images;
    const int walked = fwu_log_walk(directory, [&images](const fwu_walk_item &item) {
        fwu_change change;
        if (item.what != FWU_WALK_ENTRY || !fwu_entry_change(item.entry, change))
            return 0;
        std::map<std::string, int> &rows =
            images[change.dbname + std::string(".") + change.dsetname];
        const auto length = static_cast<size_t>(change.reclen);
        if (change.before != nullptr)
            take_away(rows, {reinterpret_cast<const char *>(change.before), length});
        if (change.after != nullptr)
            rows[{reinterpret_cast<const char *>(change.after), length}]++;
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(walked, 0);

    contents replayed;
    for (const fwu_dataset &dataset : config.datasets) {
        const std::string name = dataset.layout.dbname + "." + dataset.layout.dsetname;
        for (const auto &[image, count] : images[name]) {
            std::string row;
            EXPECT_TRUE(dump_image(row, dataset.layout, config.big_endian, FWU_LATIN1,
                                   reinterpret_cast<const unsigned char *>(image.data()),
                                   image.size()));
            replayed[name].insert(replayed[name].end(), static_cast<size_t>(count), row);
        }
    }
    return replayed;
}

TEST(Replay, RecordedStreamGivesTheFinalContentsOfEveryTable)
{
    for (const char *byte_order : {"little", "big"}) {
        const tempdir dir;
        std::string cfg = read_file(example + "fwutil.cfg");
        const size_t at = cfg.find("little");
        ASSERT_NE(at, std::string::npos);
        write_file(dir.file("fwutil.cfg"), cfg.replace(at, 6, byte_order));
        const run_result loaded =
            run_program({KESTRO_BUILD_DIR "/bin/fwlog", "load", "-cfg", dir.file("fwutil.cfg"),
                         example + "orders-changes.jsonl"});
        ASSERT_EQ(loaded.status, 0) << loaded.err;

        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        contents expected = expected_contents(config);
        contents replayed = replayed_contents(config, dir.file("log"));
        ASSERT_EQ(expected.size(), 8U);
        for (auto &[name, rows] : expected) {
            std::sort(rows.begin(), rows.end());
            std::sort(replayed[name].begin(), replayed[name].end());
            ASSERT_EQ(rows.size(), replayed[name].size()) << name;
            for (size_t i = 0; i < rows.size(); i++)
                ASSERT_EQ(rows[i], replayed[name][i]) << name;
        }
    }
}
