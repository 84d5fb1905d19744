// The copybook of the recorded stream: a COBOL program that takes capture files apart with it
// comes to the sums of the stream.
#include "tests/orders/orders_fixture.h"
#include "tests/support/program.h"

#include <sstream>

class CobolTest : public OrdersTest {
  protected:
    void SetUp() override
    {
        NEED_PROGRAM("cobc", "gnucobol3");
        OrdersTest::SetUp();
        expected = run({"python3", KESTRO_SOURCE_DIR "/tests/orders/order_sums.py",
                        example + "/orders-changes.jsonl"});
        ASSERT_EQ(expected.status, 0) << expected.err;
    }

    // The copybook of the options, and the program compiled with it.
    void compile(const std::vector<std::string> &options)
    {
        std::vector<std::string> layout = {fwlog, "layout", "--copybook"};
        layout.insert(layout.end(), options.begin(), options.end());
        const run_result copybook = run(layout);
        ASSERT_EQ(copybook.status, 0) << copybook.err;
        write_file(dir.file("capture.cpy"), copybook.out);
        const run_result compiled =
            run({"cobc", "-x", "-Wall", "-Werror", "-o", "sums", "sums.cob"});
        ASSERT_EQ(compiled.status, 0) << compiled.err;
        EXPECT_EQ(compiled.err, "");
    }

    void capture(const std::vector<std::string> &options)
    {
        std::vector<std::string> words = {kestro, "-synconly", "-start", "1-1"};
        words.insert(words.end(), options.begin(), options.end());
        words.emplace_back("capture");
        const run_result captured = run(words);
        ASSERT_EQ(captured.status, 0) << captured.err << captured.out;
    }

    void expect_sums(const std::string &file)
    {
        const run_result sums = run({"env", "CAPTURE=" + file, "./sums"});
        EXPECT_EQ(sums.status, 0) << sums.err;
        EXPECT_EQ(sums.out, expected.out);
    }

    std::string program() const
    {
        return read_file(example + "/order-sums.cob");
    }

    run_result expected;
};

TEST_F(CobolTest, SumsOfTextCapturesAreThoseOfTheStream)
{
    const std::vector<std::vector<std::string>> cases = {
        {"-ascii"},
        {"-ascii", "-exthdr", "-yyyy", "-recnum"},
        {"-ascii", "-bwfmt", "-fga"},
        {"-exthdr", "-ascii", "-info", "PROG", "-progterm", "."},
    };
    EXPECT_NE(expected.out.find("ORDERS          IU "), std::string::npos);
    write_file(dir.file("sums.cob"), program());
    for (const std::vector<std::string> &options : cases) {
        SCOPED_TRACE(testing::PrintToString(options));
        compile(options);
        capture(options);
        expect_sums("capture");
        std::filesystem::remove(dir.file("capture"));
    }
}

// One byte of a line of hexadecimal digits.
static char byte_at(const std::string &digits, size_t at)
{
    return static_cast<char>(std::stoi(digits.substr(2 * at, 2), nullptr, 16));
}

TEST_F(CobolTest, SumsOfAMessageCaptureAreThoseOfTheStream)
{
    // The records with their lengths in front, as COBOL's sequential files have them.
    std::string source = program();
    const std::string line = "LINE SEQUENTIAL";
    source.replace(source.find(line, source.find("SELECT")), line.size(), "SEQUENTIAL");
    const std::string fd = "FD  CAPTURE-FILE.";
    source.replace(source.find(fd), fd.size(), "FD  CAPTURE-FILE RECORD IS VARYING.");
    write_file(dir.file("sums.cob"), source);
    compile({"-recnum"});
    capture({"-recnum"});
    const run_result records = run({KESTRO_BUILD_DIR "/bin/tmf", "read", "--hex", "capture"});
    ASSERT_EQ(records.status, 0) << records.err;
    std::istringstream lines(records.out);
    std::string bytes;
    for (std::string digits; std::getline(lines, digits);) {
        const size_t length = digits.size() / 2;
        bytes += {static_cast<char>(length / 256), static_cast<char>(length % 256), 0, 0};
        for (size_t i = 0; i < length; i++)
            bytes += byte_at(digits, i);
    }
    write_file(dir.file("records"), bytes);
    expect_sums("records");
}
