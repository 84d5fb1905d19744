// Lines of the recorded stream with bytes changed, taken out and doubled: each
// is either refused with a reason or gives an image of the right length.
#include "feed/image.h"
#include "feed/wal2json/parse.h"
#include "fwutil/fwu_config.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <random>

static const std::string example = KESTRO_SOURCE_DIR "/examples/orders/";

static std::vector<std::string> recorded_lines()
{
    std::vector<std::string> lines;
    const std::string stream = read_file(example + "orders-changes.jsonl");
    for (size_t at = 0; at < stream.size();) {
        const size_t end = std::min(stream.find('\n', at), stream.size());
        lines.push_back(stream.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

static void damage(std::string &line, std::mt19937 &random)
{
    static const char likely[] = "{}[]\",:\\0123456789-+.eE ntfu\0\x80\xC3\xFF";
    const size_t at = random() % line.size();
    switch (random() % 5) {
    case 0:
        line[at] = static_cast<char>(random() % 256);
        break;
    case 1:
        line[at] = likely[random() % (sizeof likely - 1)];
        break;
    case 2:
        line.erase(at, random() % 20 + 1);
        break;
    case 3:
        line.insert(at, line.substr(random() % line.size(), random() % 40));
        break;
    default:
        line.resize(at + 1);
        break;
    }
}

// Makes the images of a line's rows; what it needs is kept from line to line.
struct subject {
    feed_tables tables;
    feed_image_work work;
    w2j_line line;
    std::vector<unsigned char> image;

    outcome make(std::string_view text)
    {
        outcome done = w2j_parse(line, text);
        if (!done || (line.action != 'I' && line.action != 'U' && line.action != 'D'))
            return done;
        feed_table *table = nullptr;
        done = feed_find_table(table, tables, line.schema, line.table);
        if (!done)
            return done;
        const feed_row *old_row = line.identity.present ? &line.identity : nullptr;
        if (old_row != nullptr) {
            done = feed_old_image(work, image, *table, *old_row);
            if (!done)
                return done;
            EXPECT_EQ(image.size(), static_cast<size_t>(table->image_length));
        }
        if (line.action == 'D')
            return done;
        done = feed_new_image(work, image, *table, line.columns, old_row);
        if (done) {
            EXPECT_EQ(image.size(), static_cast<size_t>(table->image_length));
        }
        return done;
    }
};

TEST(DamagedLines, AreRefusedOrGiveWholeImages)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::vector<std::string> lines = recorded_lines();
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, (example + "fwutil.cfg").c_str()), 0);
    subject taker;
    taker.tables.config = &config;

    int refused = 0;
    for (int i = 0; i < 20000; i++) {
        std::string line = lines[random() % lines.size()];
        for (auto times = random() % 3 + 1; times > 0 && !line.empty(); times--)
            damage(line, random);
        const outcome done = taker.make(line);
        if (!done) {
            ASSERT_FALSE(done.text().empty()) << line;
            refused++;
        }
    }
    EXPECT_GT(refused, 5000);
}

TEST(DamagedLines, EveryRecordedLineIsTaken)
{
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, (example + "fwutil.cfg").c_str()), 0);
    subject taker;
    taker.tables.config = &config;
    for (const std::string &line : recorded_lines()) {
        const outcome done = taker.make(line);
        ASSERT_TRUE(done) << done.text() << "\n" << line;
    }
}
