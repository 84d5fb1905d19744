// fwlog load has met a value, a table or a line that it cannot take: the configuration, the options
// or the stream are changed as docs/fwlog.md says, and the same stream is loaded to its end.
#include "tests/remedies/remedy_fixture.h"

using testing::HasSubstr;

static const char PAGE[] = "docs/fwlog.md";
static const std::string MARKS = "item NULL-MAP X 1 null-map\n";

// What is changed; what is empty stays as it was.
struct remedy {
    const char *word; // of the page's cell
    std::string items;
    std::string row; // columns
    std::string options;
    size_t loaded = 3; // of the stream's transactions, those with a record
};

struct trouble {
    const char *message; // as the page has it
    std::string said;
    std::string items; // of dataset ORDERS
    std::string row;
    std::vector<remedy> remedies;
    std::string table = "orders";
};

static std::string column(const std::string &type, const std::string &value)
{
    return R"({"name":"note","type":")" + type + R"(","value":)" + value + "}";
}

static std::string text(const std::string &value)
{
    return column("text", '"' + value + '"');
}

class ValueRemedy : public RemedyRun {
  protected:
    static std::string line(const char *action, int xid, const std::string &more)
    {
        const std::string n = std::to_string(xid);
        return R"({"action":")" + std::string(action) + R"(","xid":)" + n + more +
               R"(,"timestamp":"2026-11-20 22:08:38+00","lsn":"0/)" + n + "\"}\n";
    }
    static std::string transaction(int xid, const std::string &table, const std::string &row)
    {
        return line("B", xid, "") +
               line("I", xid,
                    R"(,"schema":"sales","table":")" + table + R"(","columns":[)" + row + "]") +
               line("C", xid, "");
    }
    // Two good transactions with a bad one between.
    static std::string stream(const trouble &t, const std::string &row)
    {
        const std::string good = R"({"name":"no","type":"integer","value":1})";
        return transaction(1, "plain", good) + transaction(2, t.table, row) +
               transaction(3, "plain", good);
    }
    void configure(const std::string &items)
    {
        write_file(dir.file("fwutil.cfg"), "log-directory log\ndatabase SALES\ndataset PLAIN\n"
                                           "item NO I 4\ndataset ORDERS\n" +
                                               items);
    }
    size_t logged_changes()
    {
        return std::stoul("0" + sh("fwlog dump --json | grep -c '\"op\":\"c\"'").out);
    }
    void carry_out(const trouble &t)
    {
        SCOPED_TRACE(t.message);
        const std::string cell = md_remedy(PAGE, t.message);
        for (const remedy &one : t.remedies) {
            SCOPED_TRACE(one.word);
            EXPECT_THAT(cell, HasSubstr(one.word));
            ASSERT_EQ(sh("rm -rf log").status, 0);
            configure(t.items);
            write_file(dir.file("stream"), stream(t, t.row));
            expect_error("fwlog load stream", t.said);
            EXPECT_EQ(logged_changes(), 1U) << "what is in front of it is in the log";
            if (!one.items.empty())
                configure(one.items);
            if (!one.row.empty())
                write_file(dir.file("stream"), stream(t, one.row));
            const run_result again = sh("fwlog load " + one.options + " stream");
            EXPECT_EQ(again.status, 0) << again.err;
            EXPECT_EQ(logged_changes(), one.loaded);
        }
    }
};

TEST_F(ValueRemedy, TextsAndNumbers)
{
    const std::string map = "item NOTE X 4\n" + MARKS;
    const std::vector<trouble> troubles = {
        {"... is N characters long",
         "characters long, item NOTE (X 4) holds 4",
         "item NOTE X 4\n",
         text("too long"),
         {{"make the item wider", "item NOTE X 8\n", "", ""},
          {"`--truncate`", "", "", "--truncate"},
          {"`values=mark`", map + "column sales.orders.note values=mark\n", "", ""}}},
        {"... has more digits than item I holds",
         "has more digits than item NOTE",
         "item NOTE P 2\n",
         column("integer", "12345"),
         {{"make the item longer or wider", "item NOTE P 3\n", "", ""}}},
        {"... has more digits than item I holds",
         "is out of the range of item NOTE",
         "item NOTE I 2\n",
         column("integer", "70000"),
         {{"make the item longer or wider", "item NOTE I 4\n", "", ""}}},
        {"... has decimal places that item I has no room for",
         "has decimal places that item NOTE",
         "item NOTE P 4 scale=1\n",
         column("numeric(9,2)", "1.25"),
         {{"raise `scale=`", "item NOTE P 4 scale=2\n", "", ""}}},
        {"... has decimal places that item I has no room for",
         "has decimal places that item NOTE",
         "item NOTE I 4\n",
         column("numeric(9,2)", "1.25"),
         {{"integers become P items", "item NOTE P 4 scale=2\n", "", ""}}},
        {"... is not a number, item I needs one",
         "is not a number, item NOTE",
         "item NOTE I 4\n",
         text("one"),
         {{"make it an X item", "item NOTE X 4\n", "", ""}}},
        {"... is not a timestamp of the years",
         "is not a timestamp of the years 0001 to 9999",
         "item NOTE X 19\n",
         column("timestamp without time zone", "\"20.11.2026 22:08:38\""),
         {{"in the ISO style", "", column("timestamp without time zone", "\"2026-11-20 22:08:38\""),
           ""}}},
        {"... has decimals that item I has no room for",
         "has decimals that item NOTE",
         "item NOTE X 19\n",
         column("timestamp without time zone", "\"2026-11-20 22:08:38.123\""),
         {{"X 23 for milliseconds", "item NOTE X 23\n", "", ""}}},
        {"... is null, and dataset D has no item to say so",
         "is null, and dataset SALES.ORDERS has no item to say so",
         "item NOTE X 4\n",
         column("text", "null"),
         {{"add `item NULL-MAP X n null-map`", map, "", ""}}},
        {"... has N elements, item I has M",
         "has 3 elements, item NOTE",
         "item NOTE I 4 x2\n",
         column("integer[]", "\"{1,2,3}\""),
         {{"match the count", "item NOTE I 4 x3\n", "", ""},
          {"take the array as text in an X item", "item NOTE X 20\n", "", ""}}},
        {"give dataset D in FILE an item with the word null-map",
         "an item with the word null-map, X 1, which marks need",
         "item NOTE X 4\nvalues mark\n",
         text("too long"),
         {{"add `item NULL-MAP X n null-map`", map + "values mark\n", "", ""}}},
    };
    for (const trouble &t : troubles)
        carry_out(t);
}

TEST_F(ValueRemedy, CharactersWithoutAPlace)
{
    const std::string latin = "text-encoding iso-8859-1\nitem NOTE X 8\n";
    const trouble t = {
        "... has the character U+20AC",
        "has the character U+20AC, which has no place in ISO 8859-1",
        latin,
        text("5 \\u20ac"),
        {{"`values=mark`", latin + MARKS + "column sales.orders.note values=mark\n", "", ""},
         {"change the text in the database", "", text("5 EUR"), ""}}};
    carry_out(t);
    // "A new log with text-encoding utf-8."
    EXPECT_THAT(md_remedy(PAGE, t.message), HasSubstr("a new log with `text-encoding utf-8`"));
    ASSERT_EQ(sh("rm -rf log").status, 0);
    configure("text-encoding utf-8\nitem NOTE X 8\n");
    write_file(dir.file("stream"), stream(t, t.row));
    EXPECT_EQ(sh("fwlog load stream").status, 0);
    EXPECT_EQ(logged_changes(), 3U);
}

TEST_F(ValueRemedy, TablesAndColumns)
{
    const std::string items = "item NOTE X 4\n";
    const std::vector<trouble> troubles = {
        {"table T is not in FILE",
         "table sales.others is not in ",
         items,
         text("one"),
         {{"describe the dataset", items + "dataset OTHERS\nitem NOTE X 4\n", "", ""},
          {"`skip-table`", items + "skip-table sales.others\n", "", "", 2}},
         "others"},
        {"table T: NAME is longer than the 16 characters of a name",
         "is longer than the 16 characters of a name",
         items,
         text("one"),
         {{"`dataset SHORT table=schema.table`",
           items + "dataset SHORT table=sales.a_name_of_many_letters\nitem NOTE X 4\n", "", ""},
          {"`skip-table`", items + "skip-table sales.a_name_of_many_letters\n", "", "", 2}},
         "a_name_of_many_letters"},
        {"item I has no column in the stream",
         "item LOST has no column in the stream",
         items + "item LOST X 2\n",
         text("one"),
         {{"take the item out of the configuration", items, "", ""}}},
    };
    for (const trouble &t : troubles)
        carry_out(t);
}

TEST_F(ValueRemedy, TwoTablesOfOneName)
{
    EXPECT_THAT(md_remedy(PAGE, "table A goes into dataset D like table B"),
                HasSubstr("describe a dataset with `table=` for one of them"));
    configure("item NOTE X 4\n");
    write_file(dir.file("stream"), transaction(1, "orders", text("one")) +
                                       transaction(2, "Orders", text("two")) +
                                       transaction(3, "orders", text("3")));
    expect_error("fwlog load stream", "goes into dataset SALES.ORDERS like table ");
    configure("item NOTE X 4\ndataset SECOND table=sales.Orders\nitem NOTE X 4\n");
    EXPECT_EQ(sh("fwlog load stream").status, 0);
    EXPECT_EQ(logged_changes(), 3U);
}

TEST_F(ValueRemedy, StreamsThatAreCutOrLackAMember)
{
    configure("item NOTE X 4\n");
    const trouble t = {"", "", "", text("one"), {}};
    const std::string whole = stream(t, t.row);
    const struct {
        const char *message;
        const char *word;
        const char *said;
        std::string cut;
    } cases[] = {
        {"the input ends inside transaction N", "load it again when it is",
         "the input ends inside transaction 3", whole.substr(0, whole.rfind("{\"action\":\"C\""))},
        {"is not valid JSON at byte N", "get it again", "is not valid JSON at byte",
         whole.substr(0, whole.rfind("\"columns\"")) + "\n"},
        {"member \"xid\" is missing", "set the plugin's option",
         "(set the plugin's option include-xids)",
         whole.substr(0, whole.rfind("{\"action\":\"B\"")) +
             R"({"action":"B","timestamp":"2026-11-20 22:08:38+00","lsn":"0/3"})"
             "\n"},
        {"member \"xid\" is missing", "set the plugin's option",
         "(set the plugin's option include-timestamp)",
         whole.substr(0, whole.rfind("{\"action\":\"B\"")) + R"({"action":"B","xid":3,"lsn":"0/3"})"
                                                             "\n"},
        {"member \"xid\" is missing", "set the plugin's option",
         "(set the plugin's option include-lsn)",
         whole.substr(0, whole.rfind("{\"action\":\"C\"")) +
             R"({"action":"C","xid":3,"timestamp":"2026-11-20 22:08:38+00"})"
             "\n"},
        {"... has a JSON object as its value", "is this its stream?",
         "has a JSON object as its value",
         stream(t, column("jsonb", "{}")).substr(0, whole.find("{\"action\":\"B\",\"xid\":3")) +
             "\n"},
        {"member \"action\" is missing", "`format-version=2`", "member \"action\" is missing",
         whole.substr(0, whole.rfind("{\"action\":\"B\"")) + "{\"change\":[]}\n"},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.message);
        EXPECT_THAT(md_remedy(PAGE, row.message), HasSubstr(row.word));
        ASSERT_EQ(sh("rm -rf log").status, 0);
        write_file(dir.file("stream"), row.cut);
        expect_error("fwlog load stream", row.said);
        EXPECT_LT(logged_changes(), 3U);
        write_file(dir.file("stream"), whole);
        EXPECT_EQ(sh("fwlog load stream").status, 0);
        EXPECT_EQ(logged_changes(), 3U);
    }
}

class SqlRemedy : public ValueRemedy {};

TEST_F(SqlRemedy, OneOfTwoTablesOfOneNameIsTaken)
{
    EXPECT_NE(md_remedy(PAGE, "A and B would both become table T"), "");
    configure("item NOTE X 4\ndataset SECOND table=sales.Orders\nitem NOTE X 4\n");
    write_file(dir.file("stream"),
               transaction(1, "orders", text("one")) + transaction(2, "Orders", text("two")));
    ASSERT_EQ(sh("fwlog load stream").status, 0);
    const std::string command = "fwlog sql --dialect sqlite --create-tables";
    expect_error(command, "would both become table \"sales_Orders\": take one of them with --dset");
    for (const char *dataset : {"orders", "second"})
        EXPECT_EQ(sh(command + " --dset " + dataset + " | grep -c INSERT").out, "1\n");
}

TEST_F(SqlRemedy, AKeyIsOneOfTheColumnsThatTheLayoutShows)
{
    const std::string cell = md_remedy(PAGE, "T has no item or column C, which --key names");
    configure("item NOTE X 4\n");
    write_file(dir.file("stream"), transaction(1, "orders", text("one")));
    ASSERT_EQ(sh("fwlog load stream").status, 0);
    const std::string command = "fwlog sql --dialect sqlite --create-tables --key ";
    expect_error(command + "ORDERS=NO", "which --key names: take one that it has");
    EXPECT_THAT(sh(md_command(cell, "fwlog layout")).out, HasSubstr("NOTE"));
    EXPECT_THAT(sh(command + "ORDERS=NOTE").out, HasSubstr("INSERT"));
}
