// A transaction of which nothing was wanted is dealt with as soon as everything before it is.
#include "tools/fwlog/outstanding.h"

static fwu_place place_of(const change_transaction &transaction)
{
    return {transaction.position, transaction.commit.time_us, true, transaction.commit.lsn,
            transaction.identity};
}

// The position of an entry of a transaction.
static fwu_position position_in(const fwlog_outstanding::transaction &transaction, int32_t tag)
{
    const fwu_position &commit = transaction.commit.position;
    return {commit.generation, commit.sequence, tag};
}

void fwlog_outstanding_begin(fwlog_outstanding &o, const fwu_place &place,
                             const fwu_position &behind)
{
    o = fwlog_outstanding();
    o.dealt = place;
    o.acked = behind;
}

// Whether the transaction is kept when others have come behind it.
static bool is_kept(const fwlog_outstanding &o, const fwlog_outstanding::transaction &transaction)
{
    return transaction.number % o.stride == 0;
}

// Makes room for another transaction: of many only each second, fourth, ... is kept.
static void make_room(fwlog_outstanding &o)
{
    if (!o.kept.empty() && !is_kept(o, o.kept.back()))
        o.kept.pop_back();
    if (o.kept.size() < FWLOG_OUTSTANDING_MAX)
        return;
    o.stride *= 2;
    std::erase_if(o.kept, [&o](const auto &transaction) { return !is_kept(o, transaction); });
}

void fwlog_outstanding_line(fwlog_outstanding &o, const fwu_position &position,
                            const change_transaction &transaction, uint64_t bytes)
{
    if (o.kept.empty() || o.kept.back().ended) {
        const fwu_place place = place_of(transaction);
        make_room(o);
        o.kept.push_back({.commit = place,
                          .behind = place,
                          .first_tag = position.tag,
                          .last_tag = position.tag,
                          .ended = false,
                          .number = ++o.number});
    }
    o.kept.back().last_tag = position.tag;
    o.coming.push_back({position, bytes});
    o.given = position;
}

// Goes on to the last place that an acknowledgement covers.
static void go_on(fwlog_outstanding &o)
{
    for (; !o.kept.empty(); o.kept.pop_front()) {
        const fwlog_outstanding::transaction &front = o.kept.front();
        if (!front.ended || !(position_in(front, front.last_tag) <= o.acked))
            break;
        o.dealt = front.behind;
        o.dealt_number = front.number;
    }
    if (o.kept.size() < FWLOG_OUTSTANDING_MAX / 8)
        o.stride = 1;
    if (o.kept.empty() || !(position_in(o.kept.front(), o.kept.front().first_tag) <= o.acked))
        return;
    o.dealt = o.kept.front().commit;
    o.dealt.position = o.acked;
}

void fwlog_outstanding_end(fwlog_outstanding &o, const change_transaction &transaction,
                           uint64_t bytes)
{
    if (o.kept.empty() && transaction.position <= o.acked)
        return; // it is read on the way to the start
    if (o.kept.empty()) {
        o.dealt = place_of(transaction);
    } else if (o.kept.back().ended) {
        o.kept.back().behind = place_of(transaction);
    } else {
        o.kept.back().ended = true;
        o.given = transaction.position;
        o.coming.push_back({transaction.position, bytes - 1}); // there with its last line's end
        go_on(o);
    }
}

void fwlog_outstanding_written(fwlog_outstanding &o, uint64_t bytes)
{
    for (; !o.coming.empty() && o.coming.front().behind < bytes; o.coming.pop_front())
        o.there = o.coming.front().position;
}

fwlog_acked fwlog_outstanding_take(fwlog_outstanding &o, const fwu_position &position)
{
    if (position == o.acked)
        return FWLOG_ACKED;
    if (position < o.acked)
        return FWLOG_ACK_BACKWARD;
    if (!(position <= o.there))
        return FWLOG_ACK_AHEAD;
    o.acked = position;
    go_on(o);
    return FWLOG_ACKED;
}

uint64_t fwlog_outstanding_count(const fwlog_outstanding &o)
{
    if (o.given <= o.acked)
        return 0;
    uint64_t count = o.number - o.dealt_number;
    for (auto one = o.kept.rbegin();
         one != o.kept.rend() && !(position_in(*one, one->first_tag) <= o.there); ++one)
        count = one->number - o.dealt_number - 1;
    return count;
}
