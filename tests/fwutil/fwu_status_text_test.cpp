// The whole text of a status file: torn, cut and changed.
#include "fwutil/fwu_status_text.h"

#include "fwutil/fwu_crc32c.h"
#include "tests/fwutil/status_lines.h"
#include "tests/support/golden.h"

#include <gtest/gtest.h>
#include <random>

static const size_t lines_at = sizeof PREFIX - 1;

TEST(StatusTextTest, IsMadeAndReadByteForByte)
{
    EXPECT_EQ(fwu_status_put("/var/log/sales", place_of(340), SYNCED_340), WITH_POSITION);
    EXPECT_EQ(fwu_status_put("/var/log/sales", {}, SYNCED_NONE), WITHOUT_POSITION);
    fwu_status_text text;
    ASSERT_EQ(fwu_status_get(text, WITH_POSITION), 0);
    EXPECT_EQ(text.log_directory, "/var/log/sales");
    EXPECT_EQ(text.version, 2);
    EXPECT_FALSE(text.torn);
    EXPECT_EQ(text.live, place_of(340));
    EXPECT_EQ(text.synced.place, place_of(340));
    EXPECT_EQ(text.synced.boot, BOOT);
    EXPECT_EQ(text.synced.mark, "file text 1234 5000 0 cap.txt\n");
    EXPECT_EQ(text.on_disk, place_of(340));
    ASSERT_EQ(fwu_status_get(text, WITHOUT_POSITION), 0);
    EXPECT_TRUE(text.have_live);
    EXPECT_FALSE(fwu_place_named(text.live));
    EXPECT_EQ(text.synced.mark, "");
}

TEST(StatusTextTest, TheFileOfTheDocumentationIsReadAsItSays)
{
    const std::string bytes = golden("status.txt");
    fwu_status_text text;
    ASSERT_EQ(fwu_status_get(text, bytes), 0);
    EXPECT_EQ(text.live, place_of(341));
    EXPECT_EQ(text.live_number, 3);
    EXPECT_EQ(text.synced.place, place_of(340));
    EXPECT_EQ(text.pointer.at, 619U);
    EXPECT_EQ(bytes.substr(text.pointer.at), SYNCED_340);
    const std::string page = read_file(KESTRO_SOURCE_DIR "/docs/forward-log.md");
    EXPECT_NE(page.find("```\n" + bytes + "```\n"), page.npos) << "the page shows another file";
}

TEST(StatusTextTest, VersionOneIsTakenAsItSays)
{
    fwu_status_text text;
    ASSERT_EQ(fwu_status_get(text, PREFIX_1 + OLD_2 + OLD_1), 0);
    EXPECT_EQ(text.version, 1);
    EXPECT_EQ(text.live.position, (fwu_position{1, 25, 341}));
    EXPECT_EQ(text.live.time_us, 1700000004000005);
    EXPECT_FALSE(text.live.full);
    EXPECT_TRUE(fwu_status_live_counts(text, "1")) << "it tells nothing of the boot";
    ASSERT_EQ(fwu_status_get(text, PREFIX_1 + OLD_NONE), 0);
    EXPECT_TRUE(text.have_live);
    EXPECT_FALSE(fwu_place_named(text.live));
    std::string bytes = PREFIX_1 + OLD_2 + OLD_1;
    bytes[sizeof PREFIX_1 + 20] ^= 1;
    ASSERT_EQ(fwu_status_get(text, bytes), 0) << "the other line is whole";
    EXPECT_EQ(text.live.position, (fwu_position{1, 25, 340}));
    EXPECT_TRUE(text.torn);
    bytes[sizeof PREFIX_1 + 20 + OLD_2.size()] ^= 1;
    EXPECT_EQ(fwu_status_get(text, bytes), -1);
}

TEST(StatusTextTest, ALineThatWasBeingChangedIsPassedOver)
{
    const std::string whole = std::string(PREFIX) + LINE_2 + LINE_1 + POINTERS_340 + SYNCED_340;
    fwu_status_text text;
    std::string bytes = whole;
    bytes.replace(lines_at, 40, "*" + std::string(39, 'x'));
    ASSERT_EQ(fwu_status_get(text, bytes), 0);
    EXPECT_EQ(text.live.position, (fwu_position{1, 25, 340}));
    EXPECT_FALSE(text.torn);
    bytes = whole;
    bytes[lines_at + FWU_STATUS_LINE_SIZE] = '*';
    ASSERT_EQ(fwu_status_get(text, bytes), 0);
    EXPECT_EQ(text.live.position, (fwu_position{1, 25, 341}));
    EXPECT_FALSE(text.torn);
    bytes[lines_at] = '*';
    ASSERT_EQ(fwu_status_get(text, bytes), 0) << "what is on disk is known all the same";
    EXPECT_FALSE(text.have_live);
    EXPECT_FALSE(fwu_status_live_counts(text, BOOT));
    EXPECT_EQ(text.synced.place, place_of(340));
}

TEST(StatusTextTest, OfLinesThatDoNotFollowEachOtherTheOlderPlaceIsTaken)
{
    const std::string rest = std::string(POINTERS_340) + SYNCED_340;
    fwu_status_text text;
    // A power cut may leave each half of a page from another moment.
    for (const std::string &lines : {std::string(LINE_5) + LINE_2, std::string(LINE_2) + LINE_5}) {
        ASSERT_EQ(fwu_status_get(text, PREFIX + lines + rest), 0);
        EXPECT_EQ(text.live.position, (fwu_position{1, 25, 340}));
        EXPECT_TRUE(text.torn);
    }
}

TEST(StatusTextTest, TheLivePlaceCountsOnItsOwnBootOnly)
{
    fwu_status_text text;
    ASSERT_EQ(fwu_status_get(text, WITH_POSITION), 0);
    EXPECT_TRUE(fwu_status_live_counts(text, BOOT));
    EXPECT_FALSE(fwu_status_live_counts(text, "6fb41e2e"));
    EXPECT_FALSE(fwu_status_live_counts(text, "unknown"));
    text.synced.boot = "unknown";
    EXPECT_FALSE(fwu_status_live_counts(text, "unknown")) << "never the same";
    text.synced.boot = "any";
    EXPECT_TRUE(fwu_status_live_counts(text, "unknown"));
}

// Whatever is read of these bytes, no position in it is ahead of the real ones.
static void expect_never_ahead(const std::string &bytes, const fwu_place &live,
                               const fwu_place &synced, const std::string &what)
{
    fwu_status_text text;
    if (fwu_status_get(text, bytes) != 0 || text.fresh)
        return;
    EXPECT_LE(text.live.position, live.position) << what;
    EXPECT_LE(text.synced.place.position, synced.position) << what;
    EXPECT_LE(text.on_disk.position, text.synced.place.position) << what;
    EXPECT_NE(text.synced.boot, "any") << what;
    EXPECT_EQ(text.log_directory, "/var/log/sales") << what;
}

TEST(StatusTextTest, EachByteChangedOrCutOffIsAnOlderPositionOrDamage)
{
    const std::string documented = golden("status.txt");
    for (const std::string &good : {WITH_POSITION, WITHOUT_POSITION, documented}) {
        fwu_status_text whole;
        ASSERT_EQ(fwu_status_get(whole, good), 0);
        for (size_t i = 0; i < good.size(); i++) {
            expect_never_ahead(good.substr(0, i), whole.live, whole.synced.place,
                               "cut at " + std::to_string(i));
            for (const int bits : {1, 2, 4, 8, 16, 32, 64, 128, 255}) {
                std::string bytes = good;
                bytes[i] = static_cast<char>(bytes[i] ^ bits);
                expect_never_ahead(bytes, whole.live, whole.synced.place,
                                   "changed at " + std::to_string(i));
            }
            std::string bytes = good;
            bytes[i] = '*';
            expect_never_ahead(bytes, whole.live, whole.synced.place,
                               "star at " + std::to_string(i));
            bytes = good.substr(0, i) + std::string(good.size() - i, '\0');
            expect_never_ahead(bytes, whole.live, whole.synced.place,
                               "zeros from " + std::to_string(i));
        }
    }
    fwu_status_text text;
    EXPECT_EQ(fwu_status_get(text, documented.substr(0, 10)), -1);
    EXPECT_EQ(fwu_status_get(text, ""), 0);
    EXPECT_TRUE(text.fresh);
}

// A file of two texts is mixed at random from two moments of its life, 512 bytes at a
// time, as a power cut may leave it.
TEST(StatusTextTest, SectorsOfTwoMomentsNeverGiveAPositionThatWasNotThere)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const uint32_t crc = fwu_crc32c(0, PREFIX, sizeof PREFIX - 1);
    // The same file before and after a force of the places 10 and 20: lines, and texts
    // that do not overlap.
    const auto text_of = [](int32_t tag) {
        return fwu_synced_put({place_of(tag), BOOT, std::string(300, 'a')});
    };
    const auto pointers = [&](const fwu_pointer &a, int n, const fwu_pointer &b, int m) {
        return n % 2 == 0 ? fwu_pointer_line(a, n, crc) + fwu_pointer_line(b, m, crc)
                          : fwu_pointer_line(b, m, crc) + fwu_pointer_line(a, n, crc);
    };
    const std::string first = text_of(10);
    const std::string second = text_of(20);
    const fwu_pointer p1 = {449, first.size(), fwu_crc32c(0, first.data(), first.size())};
    const fwu_pointer p2 = {449 + first.size(), second.size(),
                            fwu_crc32c(0, second.data(), second.size())};
    fwu_status_line line = {.prefix_crc = crc};
    const auto live = [&line](int number, int32_t tag) {
        fwu_status_line_set(line, number, place_of(tag));
        return std::string(line.text, sizeof line.text);
    };
    const std::string moments[] = {
        PREFIX + live(4, 10) + live(3, 9) + pointers(p1, 2, p1, 3) + first +
            std::string(second.size(), 'x'),
        PREFIX + live(4, 20) + live(5, 15) + pointers(p2, 4, p1, 3) + first + second,
    };
    for (int round = 0; round < 200; round++) {
        std::string bytes = moments[0];
        for (size_t at = 0; at < bytes.size(); at += 512)
            bytes.replace(at, 512, moments[random() % 2], at, 512);
        fwu_status_text text;
        ASSERT_EQ(fwu_status_get(text, bytes), 0);
        EXPECT_TRUE(text.synced.place == place_of(10) || text.synced.place == place_of(20));
        EXPECT_EQ(text.on_disk, place_of(10)) << "the second one is not known to be there";
        EXPECT_LE(text.live.position, place_of(20).position);
    }
}
