// A forward log of numbered records.
#include "tests/powercut/numbered_log.h"

#include "fwutil/fwutil.h"
#include "tests/powercut/numbered.h"
#include "tests/support/tempdir.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <stdexcept>

static fwu_layout numbered_layout()
{
    fwu_layout layout;
    layout.dbname = "TESTDB";
    layout.dsetname = "NUMBERED";
    layout.items = {{"TEXT", 'X', LOG_TEXT_SIZE, 1, 0}};
    return layout;
}

// ---- the checker: goes by the documented format

static uint64_t little(const std::string &bytes, size_t at, size_t width)
{
    if (at + width > bytes.size())
        throw std::runtime_error("cut off");
    uint64_t value = 0;
    memcpy(&value, bytes.data() + at, width);
    return value;
}

// Adds the numbers of the records of a log file's transactions.
static void add_numbers(std::vector<uint32_t> &numbers, const std::string &file)
{
    constexpr uint64_t INSERT = 3;
    constexpr uint64_t COMMIT = 6;
    if (file.compare(0, 8, "KFWLOG\r\n") != 0)
        throw std::runtime_error("no log file");
    std::vector<uint32_t> open_ones;
    uint64_t tag = 0;
    for (size_t at = 64; at < file.size();) {
        const uint64_t length = little(file, at, 4);
        if (length < 24 || at + length > file.size() || little(file, at + 8, 4) != ++tag)
            throw std::runtime_error("no entry at " + std::to_string(at));
        const uint64_t kind = little(file, at + 4, 2);
        if (kind == INSERT) {
            const uint32_t number =
                number_in(std::string_view(file).substr(at + length - LOG_TEXT_SIZE, LOG_TEXT_SIZE),
                          LOG_TEXT_SIZE);
            if (number == 0)
                throw std::runtime_error("record of other bytes at " + std::to_string(at));
            open_ones.push_back(number);
        } else if (kind == COMMIT) {
            numbers.insert(numbers.end(), open_ones.begin(), open_ones.end());
            open_ones.clear();
        }
        at += (length + 7) / 8 * 8;
    }
    if (!open_ones.empty())
        throw std::runtime_error("a transaction without its commit");
}

std::vector<uint32_t> numbers_in_log(const std::string &directory)
{
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with("fw") && name.ends_with(".log"))
            names.push_back(entry.path().string());
    }
    std::sort(names.begin(), names.end());
    std::vector<uint32_t> numbers;
    for (const std::string &name : names) {
        const std::string file = read_file(name);
        if (!file.empty())
            add_numbers(numbers, file);
    }
    return numbers;
}

// ---- the writer

fwu_writer *open_numbered_log(const std::string &config_file)
{
    fwu_config config;
    fwu_writer *writer = nullptr;
    const bool open =
        fwu_config_read(config, config_file.c_str()) == 0 && fwu_writer_open(&writer, config) == 0;
    return open ? writer : nullptr;
}

bool append_numbered(fwu_writer *writer, uint32_t last, uint32_t n)
{
    static const fwu_layout layout = numbered_layout();
    if (fwu_writer_begin(writer, nullptr) != 0)
        return false;
    for (uint32_t number = last + 1; number <= last + n; number++) {
        const std::string text = numbered_text(number, LOG_TEXT_SIZE);
        if (fwu_writer_record(writer, FWU_OP_INSERT, layout, 1700000000, LOG_TEXT_SIZE, nullptr,
                              text.data()) != 0)
            return false;
    }
    fwu_commit commit;
    commit.time_us = 1700000000LL * 1000000 + last;
    commit.lsn = last + n;
    return fwu_writer_commit(writer, commit) == 0;
}
