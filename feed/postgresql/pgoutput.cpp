// Messages are read from front to back; one that is too short, or longer than what it
// says, is none.  Numbers are in network order, texts end with NUL.
#include "feed/postgresql/pgoutput.h"

#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_time.h"

#include <cstring>

static constexpr int IDENTITY_FLAG = 1; // of a column
static constexpr int64_t EPOCH_2000_US = 946'684'800 * FWU_US_PER_S;

uint32_t pgo_shape(const pgo_relation &relation)
{
    uint32_t sum = 0;
    for (const pgo_column &column : relation.columns) {
        const std::string text =
            std::to_string(column.type) + " " + std::to_string(column.modifier) + " " + column.name;
        sum = fwu_crc32c(sum, text.c_str(), text.size() + 1);
    }
    return sum == 0 ? 1 : sum;
}

// Bytes to be read; good stays false once there were too few.
struct input {
    const char *at;
    size_t left;
    bool good = true;
};

static std::string_view take(input &in, size_t length)
{
    if (in.left < length) {
        in.good = false;
        in.left = 0;
        return {};
    }
    const std::string_view bytes(in.at, length);
    in.at += length;
    in.left -= length;
    return bytes;
}

template <typename T> static T number(input &in)
{
    T value = 0;
    for (const char c : take(in, sizeof(T)))
        value = static_cast<T>(static_cast<uint64_t>(value) << 8 | static_cast<unsigned char>(c));
    return value;
}

static std::string_view text(input &in)
{
    const void *end = memchr(in.at, 0, in.left);
    if (end == nullptr) {
        in.good = false;
        in.left = 0;
        return {};
    }
    const std::string_view bytes =
        take(in, static_cast<size_t>(static_cast<const char *>(end) - in.at));
    (void)take(in, 1);
    return bytes;
}

// Microseconds since 1970 of a time in microseconds since 2000, as the server
// writes times.
static int64_t time_us_of(int64_t since_2000)
{
    return static_cast<int64_t>(static_cast<uint64_t>(since_2000) + EPOCH_2000_US);
}

static void take_relation(input &in, pgo_relation &relation)
{
    relation.id = number<uint32_t>(in);
    relation.schema = text(in);
    if (relation.schema.empty())
        relation.schema = "pg_catalog";
    relation.name = text(in);
    relation.identity = number<char>(in);
    const int count = number<int16_t>(in);
    relation.columns.clear();
    for (int i = 0; i < count && in.good; i++) {
        pgo_column column;
        column.identity = (number<char>(in) & IDENTITY_FLAG) != 0;
        column.name = text(in);
        column.type = number<uint32_t>(in);
        column.modifier = number<int32_t>(in);
        relation.columns.push_back(std::move(column));
    }
    in.good = in.good && count >= 0;
}

static void take_tuple(input &in, pgo_tuple &tuple, char kind)
{
    tuple.kind = kind;
    tuple.count = 0;
    const int count = number<int16_t>(in);
    if (count < 0)
        in.good = false;
    for (int i = 0; i < count && in.good; i++) {
        if (tuple.count == tuple.values.size())
            tuple.values.emplace_back();
        pgo_value &value = tuple.values[tuple.count++];
        value.kind = number<char>(in);
        value.text = {};
        if (value.kind == 't')
            value.text = take(in, number<uint32_t>(in));
        else if (value.kind != 'n' && value.kind != 'u')
            in.good = false;
    }
}

static void take_rows(input &in, pgo_message &message)
{
    message.old_row.kind = 0;
    message.new_row.kind = 0;
    message.relation_id = number<uint32_t>(in);
    char kind = number<char>(in);
    if (message.kind != 'I' && (kind == 'K' || kind == 'O')) {
        take_tuple(in, message.old_row, kind);
        if (message.kind == 'D')
            return;
        kind = number<char>(in);
    }
    if (message.kind == 'D' || kind != 'N')
        in.good = false;
    else
        take_tuple(in, message.new_row, kind);
}

static void take_truncate(input &in, pgo_message &message)
{
    const auto count = number<uint32_t>(in);
    (void)number<char>(in); // cascade, restart identity
    message.truncated.clear();
    for (uint32_t i = 0; i < count && in.good; i++)
        message.truncated.push_back(number<uint32_t>(in));
}

static void take_message(input &in, pgo_message &message)
{
    message.transactional = (number<char>(in) & 1) != 0;
    message.lsn = number<uint64_t>(in);
    message.prefix = text(in);
    message.content = take(in, number<uint32_t>(in));
}

static bool take_body(input &in, pgo_message &message)
{
    switch (message.kind) {
    case 'B':
        message.lsn = number<uint64_t>(in);
        message.time_us = time_us_of(number<int64_t>(in));
        message.xid = number<uint32_t>(in);
        return true;
    case 'C':
        (void)number<char>(in); // flags, unused
        message.lsn = number<uint64_t>(in);
        message.end_lsn = number<uint64_t>(in);
        message.time_us = time_us_of(number<int64_t>(in));
        return true;
    case 'O':
        (void)number<uint64_t>(in); // the commit's position at the origin
        message.origin = text(in);
        return true;
    case 'R':
        take_relation(in, message.relation);
        return true;
    case 'Y':
        (void)number<uint32_t>(in);
        (void)text(in);
        (void)text(in);
        return true;
    case 'I':
    case 'U':
    case 'D':
        take_rows(in, message);
        return true;
    case 'T':
        take_truncate(in, message);
        return true;
    case 'M':
        take_message(in, message);
        return true;
    default:
        return false;
    }
}

outcome pgo_decode(pgo_message &message, std::string_view bytes)
{
    input in = {.at = bytes.data(), .left = bytes.size()};
    message.kind = number<char>(in);
    if (!in.good || !take_body(in, message))
        return outcome_bad("a message of unknown kind " +
                           std::to_string(static_cast<unsigned char>(message.kind)) + " came");
    if (in.good && in.left == 0)
        return {};
    return outcome_bad(std::string("a message of kind ") + message.kind +
                       (in.good ? " goes on behind its end" : " is cut short or malformed"));
}
