// The bytes of a log file: the example file worked out by hand, and decoding of
// entries that are cut short or changed.
#include "fwutil/fwu_entry.h"

#include "fwutil/fwu_bytes.h"
#include "fwutil/fwu_crc32c.h"
#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <cstring>

class EntryTest : public log_test {};

TEST_F(EntryTest, WriterProducesTheExampleFileByteForByte)
{
    const system_calls_guard guard;
    calls.clock_us = 1700000000000000;
    calls.random_from = 0x10;
    configure(
        "byte-order little\ndatabase SALES\ndataset ORDERS\nitem NO I 4\nitem PRICE P 5 scale=2\n");
    fwu_session session;
    session.user = "ann";
    session.info = "till 3";
    session.data = {"x1"};
    const std::string a("\1\0\0\0\0\0\0\x12\x5C", 9);
    const std::string b("\1\0\0\0\0\0\0\x34\x5C", 9);
    const fwu_layout &layout = config.datasets[0].layout;
    open_writer();
    ASSERT_EQ(fwu_writer_begin(writer, &session), 0);
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, layout, 1700000001, 9, nullptr, a.data()),
              0);
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_UPDATE, layout, 1700000002, 9, a.data(), b.data()),
              0);
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_DELETE, layout, 1700000003, 9, b.data(), nullptr),
              0);
    ASSERT_EQ(fwu_writer_commit(writer, {1700000004000005, 7, 256}), 0);
    close_writer();
    const std::string expected = golden_bytes("forward_log_salted.hex");
    const std::string found = log_file_bytes(1);
    ASSERT_EQ(expected.size(), 496U);
    ASSERT_EQ(found.size(), expected.size());
    for (size_t i = 0; i < expected.size(); i++)
        ASSERT_EQ(found[i], expected[i]) << "offset " << i;
}

// The same transaction in both versions of the format.
struct example_row {
    const char *golden;
    fwu_file_header header;
};

static const example_row EXAMPLES[] = {
    {"forward_log_small.hex", {}},
    {"forward_log_salted.hex",
     {.version = FWU_VERSION_SALTED,
      .identity = {{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C,
                    0x1D, 0x1E, 0x1F}},
      .salt = {0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27}}},
};

class Example : public log_test, public testing::WithParamInterface<example_row> {};
INSTANTIATE_TEST_SUITE_P(Versions, Example, testing::ValuesIn(EXAMPLES),
                         [](const auto &row) { return row.index == 0 ? "Plain" : "Salted"; });

TEST_P(Example, ReaderUnderstandsIt)
{
    std::filesystem::create_directory(log);
    write_file(file(1), golden_bytes(GetParam().golden));
    std::string session_text;
    std::string items;
    on_record = [&](const seen &record) {
        if (record.recnum != 1)
            return 0;
        for (const char *key : {"pname", "user", "login", "pid", "info"})
            session_text +=
                Fwu_get_session_entry(key) != nullptr ? Fwu_get_session_entry(key) : "-";
        session_text += Fwu_get_session_data(0);
        const char *name = nullptr;
        int32_t type = 0;
        int32_t size = 0;
        int32_t count = 0;
        int32_t aux = 0;
        while (Fwu_get_item(&name, &type, &size, &count, &aux) != 0)
            items += std::string(name) + static_cast<char>(type) + std::to_string(size) +
                     std::to_string(count) + std::to_string(aux) + " ";
        return 0;
    };
    const run_outcome outcome = run();
    const std::string a("\1\0\0\0\0\0\0\x12\x5C", 9);
    const std::string b("\1\0\0\0\0\0\0\x34\x5C", 9);
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_EQ(outcome.records, (std::vector<seen>{{"SALES", "ORDERS", 1700000001, 3, 1, "", a},
                                                  {"SALES", "ORDERS", 1700000002, 1, 2, a, b},
                                                  {"SALES", "ORDERS", 1700000003, 5, 3, b, ""}}));
    EXPECT_EQ(session_text, "-ann--till 3x1");
    EXPECT_EQ(items, "NOI410 PRICEP512 ");
}

// Decodes length bytes of a payload that stand at the very end of a heap block,
// so that a sanitizer sees a read beyond them.
template <typename F> static void decode(const std::string &payload, uint16_t kind, F with)
{
    const std::vector<unsigned char> exact(payload.begin(), payload.end());
    fwu_entry entry;
    entry.kind = kind;
    entry.payload = exact.data();
    entry.payload_length = exact.size();
    with(entry);
}

static void decode_any(const fwu_entry &entry)
{
    fwu_layout layout;
    fwu_session_view session;
    fwu_change change;
    fwu_commit_entry commit;
    (void)fwu_entry_layout(entry, layout);
    (void)fwu_entry_session(entry, session);
    (void)fwu_entry_commit(entry, commit);
    if (fwu_entry_change(entry, change)) {
        // Whatever is called good lies inside the entry.
        const auto *begin = reinterpret_cast<const char *>(entry.payload);
        const char *end = begin + entry.payload_length;
        EXPECT_LT(change.dsetname + strlen(change.dsetname), end);
        for (const unsigned char *p : {change.before, change.after})
            EXPECT_TRUE(p == nullptr || reinterpret_cast<const char *>(p) + change.reclen <= end);
    }
}

TEST_F(EntryTest, EveryCutAndEveryChangedByteIsDecodedSafely)
{
    const std::string bytes = golden_bytes("forward_log_salted.hex");
    for (size_t at = FWU_FILE_HEADER_SIZE; at < bytes.size();) {
        const auto *p = reinterpret_cast<const unsigned char *>(bytes.data() + at);
        const size_t length = get_le32(p);
        const uint16_t kind = get_le16(p + 4);
        const std::string payload =
            bytes.substr(at + FWU_ENTRY_HEADER_SIZE, length - FWU_ENTRY_HEADER_SIZE);
        for (size_t cut = 0; cut < payload.size(); cut++)
            decode(payload.substr(0, cut), kind, [&](const fwu_entry &entry) {
                decode_any(entry);
                fwu_layout layout;
                fwu_session_view session;
                fwu_change change;
                fwu_commit_entry commit;
                EXPECT_FALSE(fwu_entry_layout(entry, layout) || fwu_entry_session(entry, session) ||
                             fwu_entry_change(entry, change) || fwu_entry_commit(entry, commit))
                    << "kind " << kind << " cut to " << cut;
            });
        for (size_t i = 0; i < payload.size(); i++)
            for (const int flip : {1, 0x80, 0xFF}) {
                std::string changed = payload;
                changed[i] = static_cast<char>(changed[i] ^ flip);
                decode(changed, kind, decode_any);
            }
        at += fwu_entry_padded(length);
    }
}

struct header_row {
    size_t at;
    unsigned char value;
    const char *error; // after the checksum has been made right again
};

static const char *get_header(fwu_file_header &header, const std::string &bytes)
{
    return fwu_file_header_get(header, reinterpret_cast<const unsigned char *>(bytes.data()));
}

TEST_P(Example, FileHeaderIsUnderstoodAndSaysWhatIsWrong)
{
    const std::string good = golden_bytes(GetParam().golden).substr(0, 64);
    const fwu_file_header &wanted = GetParam().header;
    fwu_file_header header;
    EXPECT_EQ(get_header(header, good), nullptr);
    EXPECT_EQ(header.created_us, 1700000000000000);
    EXPECT_FALSE(header.big_endian);
    EXPECT_EQ(header.encoding, FWU_LATIN1);
    EXPECT_EQ(header.version, wanted.version);
    EXPECT_EQ(header.identity, wanted.identity);
    EXPECT_EQ(header.salt, wanted.salt);
    for (const header_row &row : std::vector<header_row>{
             {8, 3, "it has another format version; a newer libfwutil is needed to read it"},
             {9, 1, "it has another format version; a newer libfwutil is needed to read it"},
             {10, 72, "it has another format version; a newer libfwutil is needed to read it"},
             {12, 'X', "its file header holds values that this version does not know"},
             {13, 1, "its file header holds values that this version does not know"},
             {13, 'L', "its file header holds values that this version does not know"},
             {14, 'U', "its file header holds values that this version does not know"},
             {59, 1, "its file header holds values that this version does not know"}}) {
        std::string bytes = good;
        bytes[row.at] = static_cast<char>(row.value);
        EXPECT_STREQ(get_header(header, bytes), "the checksum of its file header is wrong");
        put_le32(reinterpret_cast<unsigned char *>(bytes.data() + 60),
                 fwu_crc32c(0, bytes.data(), 60));
        EXPECT_STREQ(get_header(header, bytes), row.error) << row.at;
    }
    std::string bytes = good;
    bytes[0] = 'k';
    EXPECT_STREQ(get_header(header, bytes), "it does not begin as a log file does");
}

TEST(FileHeader, SaysTheEncodingOfTexts)
{
    std::string bytes = golden_bytes("forward_log_values.hex").substr(0, 64);
    fwu_file_header header;
    EXPECT_EQ(get_header(header, bytes), nullptr);
    EXPECT_EQ(header.encoding, FWU_UTF8);
    EXPECT_EQ(header_bytes(header), bytes);
    header.encoding = FWU_LATIN1;
    EXPECT_EQ(header_bytes(header), golden_bytes("forward_log_salted.hex").substr(0, 64));
}

// Where the commit entry of the examples stands.
constexpr size_t EXAMPLE_COMMIT = 440;

TEST_P(Example, ItsCommitEntryIsOneInItsPlaceOnly)
{
    const std::string bytes = golden_bytes(GetParam().golden);
    const auto *p = reinterpret_cast<const unsigned char *>(bytes.data()) + EXAMPLE_COMMIT;
    const bool salted = GetParam().header.version == FWU_VERSION_SALTED;
    fwu_file_header other = GetParam().header;
    EXPECT_TRUE(fwu_entry_is_commit(p, GetParam().header, EXAMPLE_COMMIT));
    EXPECT_EQ(fwu_entry_is_commit(p, GetParam().header, EXAMPLE_COMMIT + 8), !salted);
    for (const size_t at :
         {size_t{0}, size_t{7}}) { // the header's part of the salt, then the payload's
        other.salt = GetParam().header.salt;
        other.salt[at] ^= 1;
        EXPECT_EQ(fwu_entry_is_commit(p, other, EXAMPLE_COMMIT), !salted) << at;
    }
}

TEST_P(Example, EntryHeaderSaysWhatIsWrong)
{
    const fwu_file_header &file = GetParam().header;
    const bool salted = file.version == FWU_VERSION_SALTED;
    const auto check = [&file](uint32_t length, uint16_t kind, uint16_t reserved, int32_t tag,
                               uint32_t pad) -> std::string {
        unsigned char bytes[24] = {};
        put_le32(bytes, length);
        put_le16(bytes + 4, kind);
        put_le16(bytes + 6, reserved);
        put_le32(bytes + 8, static_cast<uint32_t>(tag));
        put_le32(bytes + 12, fwu_crc32c(0, bytes, 12));
        put_le32(bytes + 20, pad);
        fwu_entry entry;
        const char *wrong = fwu_entry_header_get(entry, bytes, 5, file, 64);
        return wrong != nullptr ? wrong : "";
    };
    EXPECT_EQ(check(24, 3, 0, 5, 0), "");
    EXPECT_EQ(check(64 * 1024 * 1024, 3, 0, 5, 0), "");
    EXPECT_EQ(check(23, 3, 0, 5, 0), "the entry's length is impossible");
    EXPECT_EQ(check(64 * 1024 * 1024 + 1, 3, 0, 5, 0), "the entry's length is impossible");
    EXPECT_EQ(check(24, 0, 0, 5, 0),
              "the entry's kind is unknown; a newer libfwutil may be needed to read it");
    const std::string reserved = "reserved bytes of the entry's header are not zero";
    EXPECT_EQ(check(24, 3, 1, 5, 0), salted ? "" : reserved);
    for (uint16_t kind = 7; kind <= 9;
         kind++) { // optional: those that are not known are passed over
        EXPECT_EQ(check(24, kind, 1, 5, 0), salted ? "" : reserved);
        EXPECT_EQ(check(24, kind, 0, 5, 0),
                  "the entry's kind is unknown; a newer libfwutil may be needed to read it");
    }
    EXPECT_EQ(check(24, 7, 3, 5, 0), reserved);
    EXPECT_EQ(check(24, 3, 2, 5, 0), reserved);
    EXPECT_EQ(check(24, 3, 0, 5, 1), "reserved bytes of the entry's header are not zero");
    EXPECT_EQ(check(24, 3, 0, 6, 0), "the entry's tag does not follow the one before it");
}
