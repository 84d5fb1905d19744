// docs/changes.schema.json takes every line that there can be, and nothing else.
#include "tests/changes/json_fixture.h"
#include "tests/support/schema_check.h"

#include <gmock/gmock.h>

static void expect_kept(const std::string &lines)
{
    const run_result result = schema_check(lines);
    if (result.status == SCHEMA_CHECK_ABSENT)
        GTEST_SKIP() << SCHEMA_CHECK_SKIPPED;
    EXPECT_EQ(result.status, 0) << result.out << result.err;
}

// Items of every type in every size, of one element and of two.
static std::vector<fwu_item> all_items()
{
    std::vector<fwu_item> items;
    const auto add = [&](char type, int32_t size, int32_t scale) {
        for (const int32_t count : {1, 2})
            items.push_back({"I" + std::to_string(items.size()), type, size, count, scale});
    };
    for (const char type : {'I', 'J', 'K'})
        for (const int32_t size : {2, 4, 8})
            add(type, size, 0);
    for (const char type : {'E', 'R'})
        for (const int32_t size : {4, 8})
            add(type, size, 0);
    for (const char type : {'P', 'Z'})
        for (int32_t size = 1; size <= (type == 'P' ? FWU_PACKED_SIZE_MAX : 28); size++)
            for (const int32_t scale : {0, 1, fwu_item_digits(type, size)})
                add(type, size, scale);
    for (const char type : {'X', 'U'})
        for (const int32_t size : {1, 7, 256})
            add(type, size, 0);
    return items;
}

TEST(FwlogJsonSchema, TakesEveryTypeWithWhateverBytes)
{
    std::vector<fwu_item> items = all_items();
    const size_t values = items.size();
    items.push_back({"NULL-MAP", 'X', static_cast<int32_t>(values)});
    change_dataset dataset = dataset_of("D", items, "NULL-MAP");
    std::vector<fwu_source_column> columns;
    for (size_t i = 0; i < values; i++)
        columns.push_back({"c" + std::to_string(i),
                           i % 3 == 0   ? "boolean"
                           : i % 3 == 1 ? ""
                                        : "t",
                           static_cast<int32_t>(i), i < 2 ? static_cast<int32_t>(i) + 1 : 0});
    set_source(dataset, "d", columns);
    dataset.key = {0, 1};
    for (const change_json_options options :
         {change_json_options{}, change_json_options{true, false},
          change_json_options{false, true}}) {
        json_lines lines(options);
        // Bytes that are numbers of some types, specials of others, and no value of the rest.
        for (const char *bytes :
             {"\0\1", "\x7F\x80", "\xFF\xFF", "\x12\x3C", "12", " {", "\x7F\xF0"}) {
            std::string image;
            while (image.size() < static_cast<size_t>(dataset.image_length) - values)
                image.append(bytes, 2);
            image.resize(static_cast<size_t>(dataset.image_length) - values);
            const std::string other = image + std::string(values, '.');
            image.append(values, '.');
            image.replace(image.size() - 5, 5, ".N.NN");
            lines.put(CHANGE_UPDATE, dataset, image, other);
        }
        lines.put(CHANGE_CREATE, dataset, "",
                  std::string(static_cast<size_t>(dataset.image_length), 'N'));
        lines.put(CHANGE_DELETE, dataset,
                  std::string(static_cast<size_t>(dataset.image_length), '\0'), "");
        lines.put(CHANGE_READ, dataset, "",
                  std::string(static_cast<size_t>(dataset.image_length), '0'));
        lines.commit();
        expect_kept(lines.taken());
    }
}

TEST(FwlogJsonSchema, TakesEveryMarkAndSession)
{
    const change_dataset dataset = dataset_of("D", {{"A", 'X', 256}});
    json_lines lines;
    for (const fwu_mark_kind kind : {FWU_MARK_TRUNCATE, FWU_MARK_GAP}) {
        lines.put_mark({kind, "", "", "", "", ""});
        lines.put_mark({kind, "SALES", "ORDERS", "sales", "orders", "why \"\n"});
        lines.put_mark({kind, "", "", "sales", "orders", "x"});
    }
    lines.commit();
    std::string all;
    for (int c = 0; c < 256; c++)
        all += static_cast<char>(c);
    for (const char *pid : {"", "17", "017", "x\"\n\xFF", "999999999999999999999"}) {
        fwu_session_view session;
        session.entry[0] = pid;
        session.entry[1] = "";
        session.entry[3] = pid;
        lines.put(CHANGE_CREATE, dataset, "", all, &session);
        lines.commit();
    }
    lines.transaction = {{INT64_MIN, UINT64_MAX, UINT64_MAX}, {9999, 99999999, INT32_MAX}, {}};
    lines.put(CHANGE_CREATE, dataset, "", all);
    lines.commit();
    lines.put(CHANGE_CREATE, dataset_of("M", {{"M", 'X', 1}}, "M"), "", ".");
    lines.commit();
    expect_kept(lines.taken());
}

// A change that a capture record tells of.
static const std::string CAPTURED =
    R"({"op":"c","before":null,"after":{"A":1},"source":{"database":"SALES","dataset":"D",)"
    R"("table":null,"position":null,"record":null,"xid":null,"lsn":null,"commit_us":null,)"
    R"("program":null,"user":null,"login":null,"pid":null},"transaction":null,"ts_ms":1000})";

TEST(FwlogJsonSchema, TakesWhatACaptureRecordTells)
{
    std::string numbered = CAPTURED;
    numbered.replace(numbered.find(R"("record":null)"), 13, R"("record":7)");
    expect_kept(CAPTURED + "\n" + numbered + "\n");
}

TEST(FwlogJsonSchema, TakesTheLineOfThePage)
{
    // docs/fwlog.md breaks it for readers.
    const std::string page = read_file(KESTRO_SOURCE_DIR "/docs/fwlog.md");
    const size_t at = page.find("    {\"op\":\"u\"");
    ASSERT_NE(at, page.npos);
    std::string line = page.substr(at, page.find("\n\n", at) - at);
    std::erase(line, '\n');
    expect_kept(line + "\n");
}

// A good line in which one text is replaced by another.
struct spoiled {
    const char *what;
    const char *by;
};

static std::string spoil(const std::string &line, const std::vector<spoiled> &rows)
{
    std::string lines;
    for (const spoiled &row : rows) {
        const size_t at = line.find(row.what);
        EXPECT_NE(at, line.npos) << row.what;
        lines += std::string(line).replace(at, std::string(row.what).size(), row.by) + "\n";
    }
    return lines;
}

TEST(FwlogJsonSchema, RefusesWhatIsNoSuchLine)
{
    const std::string change =
        R"({"op":"u","before":{"A":1,"B":[1,2]},"after":{"A":null,"B":{"hex":"0a"}},)"
        R"("source":{"database":"SALES","dataset":"D","table":null,"position":"1-25.4",)"
        R"("record":1,"xid":846,"lsn":"0/19B2DF0","commit_us":1,"program":null,"user":null,)"
        R"("login":null,"pid":null},"transaction":{"id":"1-25.9","n":1,"last":true},"ts_ms":1})";
    const std::string mark =
        R"({"op":"t","before":null,"after":null,"truncate":{"reason":"x"},)"
        R"("source":{"database":null,"dataset":null,"table":null,"position":"1-25.4",)"
        R"("record":null,"xid":846,"lsn":"0/1","commit_us":1,"program":null,"user":null,)"
        R"("login":null,"pid":null},"transaction":{"id":"1-25.9","n":1,"last":true},"ts_ms":1})";
    const std::string layout =
        R"({"schema":{"database":"SALES","dataset":"D","table":null,"position":"1-25.3",)"
        R"("items":[{"name":"NO","type":"I","size":2,"count":1,"scale":0,"column":null,)"
        R"("source_type":null,"key":1,"nullable":false}],"key":["NO"],"null_map":null}})";
    expect_kept(change + "\n" + mark + "\n" + layout + "\n");

    std::string wrong = spoil(change, {
                                          {R"("op":"u")", R"("op":"x")"},
                                          {R"("op":"u")", R"("op":"c")"}, // with an image before
                                          {R"("op":"u")", R"("op":"d")"},
                                          {R"("op":"u")", R"("op":"t")"},
                                          {R"("op":"u",)", ""},
                                          {R"("before":{"A":1,"B":[1,2]})", R"("before":null)"},
                                          {R"("before":{"A":1,"B":[1,2]},)", ""},
                                          {R"("A":1)", R"("":1)"},
                                          {R"("A":1)", R"("A":{"hex":"0A"})"},
                                          {R"("A":1)", R"("A":{"hex":"0"})"},
                                          {R"("A":1)", R"("A":{"hex":""})"},
                                          {R"("A":1)", R"("A":{"hax":"00"})"},
                                          {R"("A":1)", R"("A":{})"},
                                          {R"("A":1)", R"("A":{"hex":"00","more":1})"},
                                          {R"("A":1)", R"("A":NaN)"},
                                          {R"("A":1)", R"("A":Infinity)"},
                                          {"[1,2]", "[]"},
                                          {"[1,2]", "[1]"},
                                          {"[1,2]", "[1,null]"},
                                          {"[1,2]", "[1,[2]]"},
                                          {R"("ts_ms":1)", R"("ts_ms":1.5)"},
                                          {R"("ts_ms":1)", R"("ts_ms":"1")"},
                                          {R"("ts_ms":1)", R"("more":1,"ts_ms":1)"},
                                          {R"("ts_ms":1)", R"("gap":{"reason":null},"ts_ms":1)"},
                                          {R"("database":"SALES")", R"("database":null)"},
                                          {R"("database":"SALES")", R"("database":"")"},
                                          {R"("dataset":"D")", R"("dataset":"A23456789-1234567")"},
                                          {R"("table":null)", R"("table":"")"},
                                          {R"("position":"1-25.4")", R"("position":"1-25")"},
                                          {R"("position":"1-25.4")", R"("position":"1-25.0")"},
                                          {R"("record":1)", R"("record":null)"},
                                          {R"("record":1)", R"("record":0)"},
                                          {R"("record":1)", R"("record":2147483648)"},
                                          {R"("xid":846)", R"("xid":-1)"},
                                          {R"("lsn":"0/19B2DF0")", R"("lsn":"19B2DF0")"},
                                          {R"("lsn":"0/19B2DF0")", R"("lsn":"0/19b2df0")"},
                                          {R"("commit_us":1)", R"("commit_us":null)"},
                                          {R"("pid":null)", R"("pid":-1)"},
                                          {R"("pid":null)", R"("pid":1.5)"},
                                          {R"("login":null,)", ""},
                                          {R"("user":null)", R"("user":1)"},
                                          {R"("pid":null)", R"("pid":null,"info":null)"},
                                          {R"("id":"1-25.9")", R"("id":9)"},
                                          {R"("n":1)", R"("n":0)"},
                                          {R"("last":true)", R"("last":null)"},
                                          {R"(,"last":true)", ""},
                                          {R"("last":true)", R"("last":true,"first":true)"},
                                      });
    wrong += spoil(CAPTURED, {{R"("op":"c")", R"("op":"r")"},
                              {R"("position":null)", R"("position":"1-25.4")"},
                              {R"("xid":null)", R"("xid":7)"},
                              {R"("lsn":null)", R"("lsn":"0/1")"},
                              {R"("commit_us":null)", R"("commit_us":1)"},
                              {R"("dataset":"D")", R"("dataset":null)"},
                              {R"("transaction":null,)", ""}});
    wrong += spoil(mark, {
                             {R"("op":"t")", R"("op":"g")"},
                             {R"("truncate")", R"("gap")"},
                             {R"("before":null)", R"("before":{})"},
                             {R"("after":null)", R"("after":{})"},
                             {R"("truncate":{"reason":"x"},)", ""},
                             {R"({"reason":"x"})", "{}"},
                             {R"({"reason":"x"})", R"({"reason":"x","more":1})"},
                             {R"({"reason":"x"})", R"({"reason":""})"},
                             {R"({"reason":"x"})", R"({"reason":1})"},
                             {R"("record":null)", R"("record":1)"},
                             {R"("truncate":)", R"("gap":{"reason":null},"truncate":)"},
                         });
    wrong += spoil(layout, {
                               {R"("database":"SALES")", R"("database":null)"},
                               {R"("dataset":"D",)", ""},
                               {R"("position":"1-25.3")", R"("position":null)"},
                               {R"("name":"NO")", R"("name":"")"},
                               {R"("name":"NO")", R"("name":"A23456789-12345678")"},
                               {R"("type":"I")", R"("type":"Q")"},
                               {R"("size":2)", R"("size":0)"},
                               {R"("count":1)", R"("count":32768)"},
                               {R"("scale":0)", R"("scale":-1)"},
                               {R"("column":null)", R"("column":"")"},
                               {R"("source_type":null,)", ""},
                               {R"("key":1)", R"("key":0)"},
                               {R"("nullable":false)", R"("nullable":null)"},
                               {R"("nullable":false)", R"("nullable":false,"offset":0)"},
                               {R"("key":["NO"])", R"("key":[1])"},
                               {R"("key":["NO"])", R"("key":null)"},
                               {R"(,"null_map":null)", ""},
                               {R"("null_map":null)", R"("null_map":"")"},
                               {R"({"schema")", R"({"ts_ms":1,"schema")"},
                           });
    wrong += "{}\n[]\nnull\n1\n";
    const run_result result = schema_check(wrong, true);
    if (result.status == SCHEMA_CHECK_ABSENT)
        GTEST_SKIP() << SCHEMA_CHECK_SKIPPED;
    EXPECT_EQ(result.status, 0) << result.out << result.err;
}
