// Values of record images in JSON: every type in all its sizes, its extremes, what is no value
// of it, nulls, arrays, and every character.
#include "tests/changes/json_fixture.h"

#include <gmock/gmock.h>

struct value_case {
    fwu_item item;
    std::string bytes; // big-endian
    std::string expected;
};

static fwu_item item_of(char type, int32_t size, int32_t scale = 0, int32_t count = 1)
{
    return {"A", type, size, count, scale};
}

static void expect_values(const std::vector<value_case> &cases, change_json_options options = {})
{
    for (const value_case &row : cases) {
        SCOPED_TRACE(std::string(1, static_cast<char>(row.item.type)) +
                     std::to_string(row.item.size) + " " + row.expected);
        EXPECT_EQ(values_of(dataset_of("D", {row.item}, "", true), row.bytes, options),
                  "{\"A\":" + row.expected + "}");
    }
}

// Elements with their bytes turned round.
static std::string turned(const value_case &row)
{
    std::string bytes;
    const auto size = static_cast<size_t>(row.item.size);
    for (size_t at = 0; at < row.bytes.size(); at += size) {
        const std::string element = row.bytes.substr(at, size);
        bytes.append(element.rbegin(), element.rend());
    }
    return bytes;
}

static void expect_both_orders(const std::vector<value_case> &cases,
                               change_json_options options = {})
{
    expect_values(cases, options);
    for (const value_case &row : cases)
        EXPECT_EQ(values_of(dataset_of("D", {row.item}), turned(row), options),
                  "{\"A\":" + row.expected + "}");
}

static const std::vector<value_case> INTEGERS = {
    {item_of('I', 2), "\0\0"s, "0"},
    {item_of('I', 2), "\x7F\xFF", "32767"},
    {item_of('I', 2), "\x80\0"s, "-32768"},
    {item_of('I', 2), "\xFF\xFF", "-1"},
    {item_of('I', 2), "\1\2", "258"},
    {item_of('I', 4), "\x7F\xFF\xFF\xFF", "2147483647"},
    {item_of('I', 4), "\x80\0\0\0"s, "-2147483648"},
    {item_of('I', 4), "\1\2\3\4", "16909060"},
    {item_of('I', 8), "\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF", "9223372036854775807"},
    {item_of('I', 8), "\x80\0\0\0\0\0\0\0"s, "-9223372036854775808"},
    {item_of('I', 8), "\0\x20\0\0\0\0\0\1"s, "9007199254740993"},
    {item_of('J', 2), "\x80\0"s, "-32768"},
    {item_of('J', 4), "\xFF\xFF\xFF\xFE", "-2"},
    {item_of('J', 8), "\x80\0\0\0\0\0\0\1"s, "-9223372036854775807"},
    {item_of('K', 2), "\xFF\xFF", "65535"},
    {item_of('K', 4), "\xFF\xFF\xFF\xFF", "4294967295"},
    {item_of('K', 8), "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", "18446744073709551615"},
    {item_of('K', 8), "\0\0\0\0\0\0\0\0"s, "0"},
};

static const std::vector<value_case> FLOATS = {
    {item_of('E', 4), "\0\0\0\0"s, "0"},
    {item_of('E', 4), "\x80\0\0\0"s, "-0"},
    {item_of('E', 4), "\x3D\xCC\xCC\xCD", "0.1"},
    {item_of('E', 4), "\xBF\xC0\0\0"s, "-1.5"},
    {item_of('E', 4), "\x7F\x7F\xFF\xFF", "3.4028235e+38"},
    {item_of('E', 4), "\0\0\0\1"s, "1e-45"},
    {item_of('E', 4), "\x7F\x80\0\0"s, R"("Infinity")"},
    {item_of('E', 4), "\xFF\x80\0\0"s, R"("-Infinity")"},
    {item_of('E', 4), "\x7F\xC0\0\0"s, R"("NaN")"},
    {item_of('E', 4), "\xFF\x80\0\1"s, R"("NaN")"}, // with a sign, of the other kind
    {item_of('R', 4), "\x42\x28\0\0"s, "42"},
    {item_of('E', 8), "\x3F\xB9\x99\x99\x99\x99\x99\x9A", "0.1"},
    {item_of('R', 8), "\x7F\xEF\xFF\xFF\xFF\xFF\xFF\xFF", "1.7976931348623157e+308"},
    {item_of('R', 8), "\0\0\0\0\0\0\0\1"s, "5e-324"},
    {item_of('R', 8), "\x80\0\0\0\0\0\0\0"s, "-0"},
    {item_of('E', 8), "\xFF\xF0\0\0\0\0\0\0"s, R"("-Infinity")"},
    {item_of('R', 8), "\x7F\xF0\0\0\0\0\0\0"s, R"("Infinity")"},
    {item_of('E', 8), "\x7F\xF8\0\0\0\0\0\0"s, R"("NaN")"},
    {item_of('E', 8), "\x40\x09\x21\xFB\x54\x44\x2D\x18", "3.141592653589793"},
};

static const std::vector<value_case> DECIMALS = {
    {item_of('P', 1), "\x0C", "0"},
    {item_of('P', 1), "\x9D", "-9"},
    {item_of('P', 1), "\x7F", "7"},
    {item_of('P', 1, 1), "\x7C", "0.7"},
    {item_of('P', 2), "\x12\x3C", "123"},
    {item_of('P', 2, 1), "\x12\x3D", "-12.3"},
    {item_of('P', 2, 2), "\x12\x3C", "1.23"},
    {item_of('P', 2, 3), "\x12\x3D", "-0.123"},
    {item_of('P', 3, 2), "\0\0\x0C"s, "0.00"},
    {item_of('P', 3, 2), "\0\0\x0D"s, "-0.00"},
    {item_of('P', 3, 2), "\0\x10\x0C"s, "1.00"},
    {item_of('P', 3, 2), "\0\0\x5C"s, "0.05"},
    {item_of('P', 14), "\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x9C",
     "999999999999999999999999999"},
    {item_of('P', 14, 27), "\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x9D",
     "-0.999999999999999999999999999"},
    {item_of('P', 14, 13), "\x12\x34\x56\x78\x90\x12\x34\x56\x78\x90\x12\x34\x56\x7F",
     "12345678901234.5678901234567"},
    {item_of('Z', 1), "{", "0"},
    {item_of('Z', 1), "I", "9"},
    {item_of('Z', 1), "R", "-9"},
    {item_of('Z', 1), "}", "-0"},
    {item_of('Z', 1), "5", "5"},
    {item_of('Z', 1, 1), "J", "-0.1"},
    {item_of('Z', 3), "00A", "1"},
    {item_of('Z', 3, 2), "00A", "0.01"},
    {item_of('Z', 4, 2), "123N", "-12.35"},
    {item_of('Z', 4, 2), "1234", "12.34"},
    {item_of('Z', 28), std::string(27, '9') + "I", std::string(28, '9')},
    {item_of('Z', 28, 28), std::string(27, '9') + "R", "-0." + std::string(28, '9')},
};

TEST(ChangesJsonValue, IntegersHaveAllDigits)
{
    expect_both_orders(INTEGERS);
}

TEST(ChangesJsonValue, FloatsHaveWhatTellsThemFromTheirNeighbours)
{
    expect_both_orders(FLOATS);
}

TEST(ChangesJsonValue, DecimalsHaveTheirScale)
{
    expect_values(DECIMALS);
}

TEST(ChangesJsonValue, EverySignAndScaleOfADecimal)
{
    const std::string scaled[] = {"12345", "1234.5", "123.45", "12.345", "1.2345", "0.12345"};
    const std::pair<std::string, const char *> packed[] = {
        {"\x12\x34\x5C", ""}, {"\x12\x34\x5D", "-"}, {"\x12\x34\x5F", ""}};
    const std::pair<std::string, const char *> zoned[] = {
        {"1234E", ""}, {"1234N", "-"}, {"12345", ""}};
    for (int32_t scale = 0; scale <= 5; scale++) {
        for (const auto &[bytes, sign] : packed)
            expect_values({{item_of('P', 3, scale), bytes, sign + scaled[scale]}});
        for (const auto &[bytes, sign] : zoned)
            expect_values({{item_of('Z', 5, scale), bytes, sign + scaled[scale]}});
    }
    const std::string last = "{ABCDEFGHI}JKLMNOPQR0123456789";
    for (size_t i = 0; i < last.size(); i++)
        expect_values({{item_of('Z', 2), "4" + last.substr(i, 1),
                        (i / 10 == 1 ? "-4" : "4") + std::to_string(i % 10)}});
    // No other half byte is a sign of P, no other character ends Z.
    for (const int half : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 14}) {
        const std::string hex = "123" + std::string(1, "0123456789abcdef"[half]);
        expect_values({{item_of('P', 2),
                        {'\x12', static_cast<char>(0x30 | half)},
                        R"({"hex":")" + hex + "\"}"}});
    }
    for (int c = 0; c < 256; c++) {
        const std::string byte(1, static_cast<char>(c));
        if (last.find(byte) == last.npos) {
            const std::string value = values_of(dataset_of("D", {item_of('Z', 2)}), "4" + byte);
            EXPECT_TRUE(value.starts_with(R"({"A":{"hex":"34)")) << value;
        }
    }
}

TEST(ChangesJsonValue, NumbersAsTextAreStringsAndFloatsStayNumbers)
{
    const auto quoted = [](std::vector<value_case> cases) {
        for (value_case &row : cases)
            row.expected = '"' + row.expected + '"';
        return cases;
    };
    const change_json_options options = {.text_numbers = true};
    expect_both_orders(quoted(INTEGERS), options);
    expect_values(quoted(DECIMALS), options);
    expect_both_orders(FLOATS, options);
}

TEST(ChangesJsonValue, BytesThatAreNoValueOfTheirTypeComeInHexadecimal)
{
    const std::vector<value_case> cases = {
        {item_of('P', 2), "\x12\x3A", R"({"hex":"123a"})"}, // a sign that is none
        {item_of('P', 2), "\x12\x33", R"({"hex":"1233"})"},
        {item_of('P', 2), "\xA2\x3C", R"({"hex":"a23c"})"}, // digits that are none
        {item_of('P', 2), "\x1F\x3C", R"({"hex":"1f3c"})"},
        {item_of('P', 2), "\0\0"s, R"({"hex":"0000"})"},
        {item_of('P', 3), "   ", R"({"hex":"202020"})"},
        {item_of('P', 2, 4), "\x12\x3C", R"({"hex":"123c"})"}, // more places than digits
        {item_of('P', 2, -1), "\x12\x3C", R"({"hex":"123c"})"},
        {item_of('Z', 3), "   ", R"({"hex":"202020"})"},
        {item_of('Z', 3), "1A3", R"({"hex":"314133"})"},
        {item_of('Z', 3), "12S", R"({"hex":"313253"})"},
        {item_of('Z', 3), "12\0"s, R"({"hex":"313200"})"},
        {item_of('Z', 2, 3), "12", R"({"hex":"3132"})"},
        {item_of('I', 3), "\1\2\3", R"({"hex":"010203"})"}, // sizes that are none
        {item_of('E', 2), "\1\2", R"({"hex":"0102"})"},
        {item_of('K', 1), "\1", R"({"hex":"01"})"},
        {item_of('Q', 2), "\xFF\x0A", R"({"hex":"ff0a"})"}, // no type
    };
    expect_values(cases);
    expect_values(cases, {.text_numbers = true});
}

TEST(ChangesJsonValue, ElementsStandInAnArrayEachByItself)
{
    const std::vector<value_case> cases = {
        {item_of('I', 2, 0, 2), "\0\1\0\2"s, "[1,2]"},
        {item_of('X', 2, 0, 3), "a b   ", R"(["a","b",""])"},
        {item_of('P', 1, 0, 3), "\x1C\x1A\x2D", R"([1,{"hex":"1a"},-2])"},
        {item_of('E', 4, 0, 2), "\x3F\x80\0\0\x7F\xC0\0\0"s, R"([1,"NaN"])"},
    };
    expect_values(cases);
    expect_values({{item_of('P', 1, 0, 3), "\x1C\x1A\x2D", R"(["1",{"hex":"1a"},"-2"])"}},
                  {.text_numbers = true});
}

TEST(ChangesJsonValue, TextsHaveNoBlanksAtTheirEndAndAllElse)
{
    expect_values({
        {item_of('X', 5), "ab   ", R"("ab")"},
        {item_of('U', 5), "  ab ", R"("  ab")"},
        {item_of('X', 3), "   ", R"("")"},
        {item_of('X', 3), "\0  "s, R"("\u0000")"},
        {item_of('X', 3), "\xA0  ", "\"\xC2\xA0\""}, // a blank that does not break lines is kept
        {item_of('X', 4), "\"\\/\n", R"("\"\\/\u000a")"},
    });
}

TEST(ChangesJsonValue, EveryCharacterIsWrittenAsWhatItIs)
{
    std::string image;
    std::string expected;
    std::vector<std::string> written;
    for (unsigned c = 0; c < 256; c++) {
        image += static_cast<char>(c);
        char text[8];
        if (c == '"' || c == '\\')
            snprintf(text, sizeof text, "\\%c", static_cast<char>(c));
        else if (c < 32 || (c >= 127 && c < 160))
            snprintf(text, sizeof text, "\\u%04x", c);
        else if (c < 127)
            snprintf(text, sizeof text, "%c", static_cast<char>(c));
        else if (c < 192)
            snprintf(text, sizeof text, "\xC2%c", static_cast<char>(c));
        else
            snprintf(text, sizeof text, "\xC3%c", static_cast<char>(c - 64));
        expected += text;
        written.emplace_back(text);
    }
    expect_values({{item_of('X', 256), image, '"' + expected + '"'}});
    // Each by itself, between others and at both ends.
    for (size_t c = 0; c < 256; c++) {
        const std::string byte(1, static_cast<char>(c));
        EXPECT_EQ(values_of(dataset_of("D", {item_of('U', 3)}), byte + "a" + byte),
                  "{\"A\":\"" + written[c] + "a" + (c == ' ' ? "" : written[c]) + "\"}");
    }
}

TEST(ChangesJsonValue, ANullIsNullWhateverItsBytesAre)
{
    const change_dataset dataset = dataset_of(
        "D", {{"A", 'I', 2}, {"MAP", 'X', 3}, {"B", 'P', 1}, {"C", 'X', 2, 2}}, "MAP", true);
    const auto values = [&](const std::string &map) {
        return values_of(dataset, "\0\1"s + map + "\xFFpqrs");
    };
    EXPECT_EQ(values("..."), R"({"A":1,"B":{"hex":"ff"},"C":["pq","rs"]})");
    EXPECT_EQ(values("N.."), R"({"A":null,"B":{"hex":"ff"},"C":["pq","rs"]})");
    EXPECT_EQ(values(".N."), R"({"A":1,"B":null,"C":["pq","rs"]})");
    EXPECT_EQ(values("..N"), R"({"A":1,"B":{"hex":"ff"},"C":null})");
    EXPECT_EQ(values("NNN"), R"({"A":null,"B":null,"C":null})");
    EXPECT_EQ(values("n\0 "s), R"({"A":1,"B":{"hex":"ff"},"C":["pq","rs"]})");
}

TEST(ChangesJsonValue, WithSourceNamesColumnsNameValues)
{
    change_dataset dataset = dataset_of(
        "D", {{"ORDER-NO", 'I', 2}, {"NAME", 'X', 1}, {"NO-COLUMN", 'X', 1}, {"NULL-MAP", 'X', 3}},
        "NULL-MAP", true);
    const std::string image = "\0\1ab..."s;
    const change_json_options by_source = {.source_names = true};
    const std::string by_item = R"({"ORDER-NO":1,"NAME":"a","NO-COLUMN":"b"})";
    EXPECT_EQ(values_of(dataset, image, by_source), by_item) << "no source";
    set_source(dataset, "d",
               {{"n\xC3\xA4m\"e", "text", 1}, {"x", "text", -1}, {"order_no", "", 0}});
    EXPECT_EQ(values_of(dataset, image, by_source),
              R"({"order_no":1,"näm\"e":"a","NO-COLUMN":"b"})");
    EXPECT_EQ(values_of(dataset, image), by_item);
}

TEST(ChangesJsonValue, WithSourceNamesBooleansAreTrueAndFalse)
{
    const std::vector<value_case> cases = {
        {item_of('I', 2), "\0\1"s, "true"},
        {item_of('I', 2), "\0\0"s, "false"},
        {item_of('I', 2), "\0\2"s, "2"},
        {item_of('I', 2), "\xFF\xFF", "-1"},
        {item_of('P', 2, 2), "\x10\x0C", "true"},
        {item_of('P', 2, 2), "\x10\x1C", "1.01"},
        {item_of('P', 2, 1), "\0\x0C"s, "false"},
        {item_of('Z', 1), "A", "true"},
        {item_of('E', 4), "\x3F\x80\0\0"s, "true"},
        {item_of('E', 4), "\x3F\0\0\0"s, "0.5"},
        {item_of('E', 4), "\x7F\xC0\0\0"s, R"("NaN")"},
        {item_of('X', 1), "T", "true"},
        {item_of('X', 2), "F ", "false"},
        {item_of('X', 1), "t", "true"},
        {item_of('X', 1), "f", "false"},
        {item_of('X', 5), "true ", "true"},
        {item_of('X', 5), "false", "false"},
        {item_of('X', 1), "1", R"("1")"},
        {item_of('X', 1), " ", R"("")"},
        {item_of('P', 1), "\x1A", R"({"hex":"1a"})"},
        {item_of('I', 2, 0, 2), "\0\1\0\0"s, "[true,false]"},
    };
    for (const value_case &row : cases)
        for (const char *type : {"boolean", "boolean[]"}) {
            change_dataset dataset = dataset_of("D", {row.item}, "", true);
            set_source(dataset, "d", {{"A", type, 0}});
            EXPECT_EQ(values_of(dataset, row.bytes, {.source_names = true}),
                      "{\"A\":" + row.expected + "}");
        }
    change_dataset dataset = dataset_of("D", {item_of('I', 2)}, "", true);
    set_source(dataset, "d", {{"A", "smallint", 0}});
    EXPECT_EQ(values_of(dataset, "\0\1"s, {.source_names = true}), R"({"A":1})");
    set_source(dataset, "d", {{"A", "boolean", 0}});
    EXPECT_EQ(values_of(dataset, "\0\1"s), R"({"A":1})") << "by item";
    EXPECT_EQ(values_of(dataset, "\0\1"s, {.source_names = true, .text_numbers = true}),
              R"({"A":true})");
    EXPECT_EQ(values_of(dataset, "\0\2"s, {.source_names = true, .text_numbers = true}),
              R"({"A":"2"})");
}

TEST(ChangesJsonValue, SixteenHundredItemsHaveTheirPlaces)
{
    std::vector<fwu_item> items;
    std::string image;
    std::string expected;
    for (int i = 0; i < 1600; i++) {
        items.push_back({"COLUMN-" + std::to_string(i), 'I', 2});
        image += {static_cast<char>(i >> 8), static_cast<char>(i & 0xFF)};
        expected +=
            ",\"COLUMN-" + std::to_string(i) + "\":" + (i % 7 == 3 ? "null" : std::to_string(i));
    }
    items.push_back({"NULL-MAP", 'X', 1600});
    for (int i = 0; i < 1600; i++)
        image += i % 7 == 3 ? 'N' : '.';
    EXPECT_EQ(values_of(dataset_of("D", items, "NULL-MAP", true), image),
              "{" + expected.substr(1) + "}");
}

TEST(ChangesJsonValue, ARowOf16MiBIsWritten)
{
    const int32_t count = (16 << 20) / 32767 + 1;
    std::string image;
    std::string expected = "[";
    for (int32_t i = 0; i < count; i++) {
        const std::string text(32766, static_cast<char>('a' + i % 26));
        image += text + "\xFC";
        expected += (i > 0 ? ",\"" : "\"") + text + "\xC3\xBC\"";
    }
    EXPECT_TRUE(values_of(dataset_of("D", {item_of('X', 32767, 0, count)}), image) ==
                "{\"A\":" + expected + "]}");
}
