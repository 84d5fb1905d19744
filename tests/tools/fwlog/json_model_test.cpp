// Logs of random layouts, bytes, whole values, sessions and marks, printed as JSON and held to a
// second reading of the log's files, which shares nothing with the first.
#include "fwutil/fwutil.h"
#include "tests/changes/written_log.h"
#include "tests/support/run.h"
#include "tests/support/schema_check.h"
#include "tests/tools/fwlog/json_lines.h"

#include <gtest/gtest.h>

#include <random>

class random_log {
  public:
    explicit random_log(unsigned seed)
        : random(seed), log(std::string("byte-order ") + (seed % 2 == 0 ? "little" : "big") +
                            "\ntext-encoding " + (seed % 3 == 0 ? "utf-8" : "iso-8859-1") + "\n")
    {
        for (int n = 0; n < 3; n++)
            layouts.push_back(layout("SET-" + std::to_string(n)));
        for (int n = 0; n < 12; n++) {
            if (one_in(4))
                log.new_file();
            transaction();
            if (one_in(3)) { // another layout of the dataset, or one that was there before
                layouts.push_back(layout("SET-0"));
                const auto behind = static_cast<int>(layouts.size()) - 3;
                std::swap(layouts.front(), layouts[static_cast<size_t>(3 + below(behind))]);
            }
        }
    }

    int below(int n)
    {
        return static_cast<int>(random() % static_cast<unsigned>(n));
    }
    bool one_in(int n)
    {
        return below(n) == 0;
    }

  private:
    fwu_item item(int n)
    {
        static constexpr char types[] = "ERIJKPZXU";
        fwu_item made{"ITEM-" + std::to_string(n), types[below(9)], 1};
        const fwu_item_type &type = *fwu_item_type_of(made.type);
        made.size = type.binary ? (type.min == 4 ? 4 : 2) << below(type.min == 4 ? 2 : 3)
                                : 1 + below(std::min(type.max, 30));
        made.count = one_in(4) ? 1 + below(4) : 1;
        const int32_t digits = fwu_item_digits(made.type, made.size);
        made.item_aux = digits > 0 ? below(digits + 1) : 0;
        return made;
    }

    fwu_layout layout(const std::string &name)
    {
        fwu_layout made{.dbname = "RAND\xD6M", .dsetname = name, .items = {}};
        const int items = 1 + below(8);
        for (int n = 0; n < items; n++)
            made.items.push_back(item(n));
        const bool has_map = !one_in(3);
        if (has_map) {
            const int at = below(items + 1);
            made.items.insert(made.items.begin() + at,
                              {one_in(2) ? "NULL-MAP" : "NULLS", 'X', items});
        }
        if (!one_in(3))
            made.source = source(made);
        return made;
    }

    std::shared_ptr<const fwu_source> source(const fwu_layout &of)
    {
        auto made = std::make_shared<fwu_source>();
        made->schema = one_in(3) ? "" : "\xC3\xB6rtlich";
        made->table = "t\"" + of.dsetname;
        int32_t key = 0;
        for (size_t i = 0; i < of.items.size(); i++) {
            if (of.items[i].name.starts_with("NULL")) {
                made->null_map = static_cast<int32_t>(i);
                continue;
            }
            static constexpr const char *types[] = {"boolean", "boolean[]", "", "numeric(9,2)"};
            if (!one_in(5))
                made->columns.push_back({"sp\xC3\xA4lte \\" + std::to_string(i), types[below(4)],
                                         static_cast<int32_t>(i), one_in(4) ? ++key : 0});
            if (one_in(5))
                made->columns.push_back(
                    {"left" + std::to_string(i), "text", -1, one_in(9) ? ++key : 0});
        }
        std::shuffle(made->columns.begin(), made->columns.end(), random);
        return made;
    }

    // Mostly what the type asks for.
    std::string element(const fwu_item &of)
    {
        std::string bytes;
        for (int32_t i = 0; i < of.size; i++)
            bytes += static_cast<char>(one_in(3) ? "\0\xFF \x7F\x80"[below(5)] : below(256));
        if (of.type == 'P' && !one_in(5)) {
            for (char &c : bytes)
                c = static_cast<char>(below(10) << 4 | below(10));
            bytes.back() = static_cast<char>((bytes.back() & 0xF0) | "\x0C\x0D\x0F"[below(3)]);
        }
        if (of.type == 'Z' && !one_in(5)) {
            for (char &c : bytes)
                c = static_cast<char>('0' + below(10));
            bytes.back() = "{ABCDEFGHI}JKLMNOPQR0123456789"[below(30)];
        }
        if ((of.type == 'X' || of.type == 'U') && one_in(2))
            bytes.assign(static_cast<size_t>(of.size), "Tf1 "[below(4)]);
        else if ((of.type == 'X' || of.type == 'U') && one_in(2)) // characters, the last one cut
            for (size_t at = 0; at < bytes.size(); at++)
                bytes[at] = "\xC2\x85 \xE2\x82\xAC"[at % 6];
        if (of.type != 'P' && of.type != 'Z' && one_in(6)) {
            bytes.assign(static_cast<size_t>(of.size), '\0');
            (one_in(2) ? bytes.front() : bytes.back()) = 1; // truth values of integers
        }
        return bytes;
    }

    std::string image(const fwu_layout &of)
    {
        std::string bytes;
        for (const fwu_item &row : of.items) {
            if (row.name.starts_with("NULL"))
                for (int32_t i = 0; i < row.size; i++)
                    bytes += one_in(2) ? '.' : "NCR?!"[below(5)];
            else
                for (int32_t i = 0; i < row.count; i++)
                    bytes += element(row);
        }
        return bytes;
    }

    // Adds whole values of items of an image that there is.
    void add_values(std::vector<fwu_value> &values, const fwu_layout &of, fwu_image image)
    {
        static constexpr std::string_view texts[] = {"",
                                                     "12.5",
                                                     "-0",
                                                     "NaN",
                                                     "007",
                                                     "1.5E-7",
                                                     "123456789012345678901234567890.1",
                                                     "  a",
                                                     "b  ",
                                                     "{1,2}",
                                                     "true",
                                                     "f",
                                                     "1",
                                                     "\"\\\n\xC2\x85\xC2\xA0\xE2\x82\xAC",
                                                     "\xE9",
                                                     "\xE2\x82"};
        static const std::string longest(FWU_VALUE_PIECE_MAX + 1, 'x');
        for (size_t i = 0; i < of.items.size(); i++)
            if (!of.items[i].name.starts_with("NULL") && one_in(4))
                values.push_back(
                    {static_cast<int32_t>(i), image,
                     one_in(400) ? std::string_view(longest) : texts[below(std::size(texts))]});
    }

    fwu_session session()
    {
        fwu_session made;
        for (auto *entry : {&made.pname, &made.user, &made.login, &made.pid})
            if (!one_in(3))
                *entry =
                    std::string(static_cast<size_t>(below(3)), static_cast<char>(1 + below(255))) +
                    (one_in(2) ? std::to_string(below(50000)) : "");
        if (one_in(3))
            made.data = {"snapshot=not the last", "xid=7"};
        if (one_in(3))
            made.data.emplace_back("snapshot=x");
        return made;
    }

    void change()
    {
        const fwu_layout &of = layouts[static_cast<size_t>(below(3))];
        static constexpr int32_t opcodes[] = {FWU_OP_INSERT, FWU_OP_UPDATE, FWU_OP_DELETE};
        const int32_t opcode = opcodes[below(3)];
        std::vector<fwu_value> values;
        if (opcode != FWU_OP_DELETE && one_in(2))
            add_values(values, of, FWU_IMAGE_AFTER);
        if (opcode != FWU_OP_INSERT && one_in(2))
            add_values(values, of, FWU_IMAGE_BEFORE);
        log.change(opcode, of, opcode == FWU_OP_INSERT ? "" : image(of),
                   opcode == FWU_OP_DELETE ? "" : image(of), values);
    }

    void mark()
    {
        fwu_mark made;
        made.kind = one_in(2) ? FWU_MARK_TRUNCATE : FWU_MARK_GAP;
        if (!one_in(3)) {
            made.dbname = layouts[0].dbname;
            made.dsetname = "SET-" + std::to_string(below(4));
        }
        if (one_in(2)) {
            made.schema = one_in(2) ? "" : "s\xC3\xA4";
            made.table = "t";
        }
        made.reason = one_in(3) ? "" : "why \"\xE2\x82\xAC\"\n";
        log.mark(made);
    }

    void transaction()
    {
        const fwu_session first = session();
        log.begin(one_in(3) ? nullptr : &first);
        for (int n = below(8); n >= 0; n--) {
            if (one_in(6))
                mark();
            else
                change();
            if (one_in(6)) {
                EXPECT_EQ(fwu_writer_session(log.writer, session()), 0);
            }
        }
        log.commit();
    }

    std::mt19937 random;

  public:
    written_log log;

  private:
    std::vector<fwu_layout> layouts; // the first three are in use
};

static std::string lines_of(const random_log &of, const std::vector<std::string> &options)
{
    std::vector<std::string> words = {FWLOG, "dump", "--json", "-cfg", of.log.cfg};
    words.insert(words.end(), options.begin(), options.end());
    const run_result result = run_program(words);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
}

static void expect_said(const random_log &of, const std::string &lines,
                        const std::vector<std::string> &options)
{
    write_file(of.log.dir.file("lines"), lines);
    std::vector<std::string> words = {"/usr/bin/env", "python3",
                                      KESTRO_SOURCE_DIR "/tests/tools/fwlog/json_model.py",
                                      of.log.log, of.log.dir.file("lines")};
    words.insert(words.end(), options.begin(), options.end());
    const run_result result = run_program(words);
    EXPECT_EQ(result.status, 0) << testing::PrintToString(options) << result.out << result.err;
}

// One of the positions that the lines have.
static std::string some_position(random_log &of, const std::string &lines)
{
    const std::string front = "\"position\":\"";
    size_t at = lines.find(front, static_cast<size_t>(of.below(static_cast<int>(lines.size()))));
    if (at == lines.npos)
        at = lines.find(front);
    at += front.size();
    return lines.substr(at, lines.find('"', at) - at);
}

TEST(FwlogJsonModel, RandomLogsAreSaidAsASecondReadingHasThem)
{
    if (run_program({"/usr/bin/env", "python3", "--version"}).status != 0)
        GTEST_SKIP() << "no python3";
    const unsigned first = std::random_device{}() % 1000000;
    for (unsigned seed = first; seed < first + 12 && !HasFailure(); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        random_log of(seed);
        const std::string all = lines_of(of, {});
        ASSERT_NE(all, "");
        expect_said(of, all, {});
        expect_said(of, lines_of(of, {"--source-names", "--numbers", "text"}),
                    {"source-names", "text"});
        const std::string after = some_position(of, all);
        const std::string to = some_position(of, all);
        expect_said(of, lines_of(of, {"--source-names", "--after", after, "--dset", "set-0"}),
                    {"source-names", "after=" + after, "dset=SET-0"});
        expect_said(of, lines_of(of, {"--to", to, "--dset", "@:set-1"}),
                    {"to=" + to, "dset=SET-1"});
        if (seed == first) {
            const run_result kept = schema_check(all);
            EXPECT_TRUE(kept.status == 0 || kept.status == SCHEMA_CHECK_ABSENT) << kept.out;
        }
    }
}
