// tmf salvage on random files with many damaged lengths, against a model that knows which
// records it has damaged.
#include "tests/tools/tmf/damaged_file.h"

#include <random>

struct model_record {
    std::string data;
    bool damaged = false;
    bool in_front = false; // it is the length in front that is damaged, not the one behind
};

// A damaged record is passed over together with those behind it, up to one that is sound and
// stands right behind the damaged one, behind an end marker that is not damaged, in front of
// another sound one, or last.
static std::vector<std::string> model_salvage(const std::vector<model_record> &records)
{
    std::vector<std::string> taken;
    for (size_t i = 0; i < records.size();) {
        if (!records[i].damaged) {
            taken.push_back(records[i++].data);
            continue;
        }
        const size_t wrong = i++;
        const auto found = [&] {
            return !records[i].damaged && (i == wrong + 1 || records[i - 1].in_front ||
                                           i + 1 == records.size() || !records[i + 1].damaged);
        };
        while (i < records.size() && !found())
            i++;
    }
    return taken;
}

class TmfSalvageModel : public DamagedFile {};

TEST_F(TmfSalvageModel, DamagedLengthsCostTheirRecordsAndNoOthersThanTheModels)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 20; round++) {
        std::vector<model_record> records(1 + random() % 400);
        std::string data;
        for (model_record &record : records) {
            // Long ones, so that the bytes that are read at once end at any place.
            const size_t length = 1 + random() % (random() % 8 == 0 ? 32761 : 60);
            for (size_t i = 0; i < length; i++)
                record.data += static_cast<char>('a' + random() % 26);
            record.damaged = random() % 4 == 0;
            std::string front = be16(static_cast<int>(length) + 6);
            std::string behind = front;
            record.in_front = record.damaged && random() % 2 == 0;
            if (record.damaged) { // a length that none has
                const auto none = random() % 2 == 0 ? random() % 7 : 32768 + random() % 32768;
                (record.in_front ? front : behind) = be16(static_cast<int>(none));
            }
            data += front + be16(17) + record.data + behind;
        }
        std::string file = four_records().substr(0, 4352) + data + "\xff\xff";
        put_number(file, 16, static_cast<int32_t>(records.size()));
        put_number(file, 44, static_cast<int32_t>(4352 + data.size()));
        write_file(path, file);
        const run_result result = tmf({"salvage", "--text", path, "-"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(split(result.out), model_salvage(records)) << "round " << round;
    }
}
