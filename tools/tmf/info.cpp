// tmf info: what tmft_look finds, for people and as JSON.
#include "tools/tmf/look.h"
#include "tools/tmf/tmf_tool.h"
#include "util/json_text.h"

#include <bit>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

// ---- facts in words

static std::string_view stamp_of(const tmf_common &common)
{
    return {common.file_stamp, TMF_STAMP_SIZE};
}

// The stamp's time, "2023-11-14" separator "22:13:20"; empty when the stamp is
// none.
static std::string stamp_time(const tmf_common &common, char separator)
{
    time_t seconds = 0;
    for (const char digit : stamp_of(common)) {
        const bool decimal = digit >= '0' && digit <= '9';
        if (!decimal && (digit < 'a' || digit > 'f'))
            return "";
        seconds = seconds * 16 + (decimal ? digit - '0' : digit - 'a' + 10);
    }
    struct tm parts;
    char text[32];
    if (gmtime_r(&seconds, &parts) == nullptr ||
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts) == 0)
        return "";
    std::string result = text;
    result[10] = separator;
    return result;
}

static std::string stamp_text(const tmf_common &common)
{
    static const char none[TMF_STAMP_SIZE] = {};
    const std::string_view stamp = stamp_of(common);
    if (stamp == std::string_view(none, TMF_STAMP_SIZE))
        return "none, nobody has opened the file yet";
    const std::string time = stamp_time(common, ' ');
    if (!time.empty())
        return std::string(stamp) + ", " + time + " UTC";
    std::string text = "not a time, 0x";
    json_text_hex(text, stamp);
    return text;
}

static const char *order_text(const tmft_facts &facts)
{
    const bool little = (std::endian::native == std::endian::little) != facts.other_order;
    return little ? "little-endian" : "big-endian";
}

static std::string address_text(const tmf_common &common)
{
    std::string text;
    for (const unsigned char part : common.signal_addr)
        text += (text.empty() ? "" : ".") + std::to_string(part);
    return text;
}

// Slots in the wait list that no reader has.
static std::vector<int> ownerless_waits(const tmf_common &common)
{
    std::vector<int> slots;
    for (int i = 0; i < TMF_MAX_READERS; i++) {
        const bool taken =
            i < tmft_slots(common.max_readers, TMF_MAX_READERS) && tmft_bit(common.reader_map, i);
        if (tmft_bit(common.wait_list, i) && !taken)
            slots.push_back(i);
    }
    return slots;
}

// ---- for people

static std::string user_text(const tmft_user &user)
{
    std::string text = "slot " + std::to_string(user.slot);
    text += user.pid == 0 ? ": no process id" : ": process " + std::to_string(user.pid);
    switch (user.lock) {
    case TMFT_LOCK_HELD:
        text += user.holder == 0 || user.holder == user.pid
                    ? ", holds its lock"
                    : ", lock held by process " + std::to_string(user.holder);
        break;
    case TMFT_LOCK_FREE:
        text += ", lock not held: gone";
        break;
    case TMFT_LOCK_UNKNOWN:
        text += ", lock unknown";
        break;
    }
    return text;
}

static void put_users(std::string &out, const tmft_facts &facts, bool is_reader)
{
    const tmf_common &common = facts.common;
    const uint16_t exclusive = is_reader ? TMF_FLAG_READER_EXCLUSIVE : TMF_FLAG_WRITER_EXCLUSIVE;
    out += std::string("    ") + (is_reader ? "readers  " : "writers  ") +
           std::to_string(is_reader ? common.num_readers : common.num_writers) + " of " +
           std::to_string(is_reader ? common.max_readers : common.max_writers);
    out += (common.flags & exclusive) != 0 ? ", exclusive\n" : "\n";
    for (const tmft_user &user : is_reader ? facts.readers : facts.writers) {
        out += "        " + user_text(user);
        if (is_reader && tmft_bit(common.wait_list, user.slot))
            out += ", in the wait list at " + address_text(common) + ":" +
                   std::to_string(tmft_port(common, user.slot));
        out += '\n';
    }
}

static void put_text(std::string &out, const tmft_facts &facts, const char *file)
{
    const tmf_common &common = facts.common;
    out += std::string(file) + "\n";
    out += "    order    " + std::string(order_text(facts));
    out += facts.other_order ? ", not this host's\n" : "\n";
    out += "    stamp    " + stamp_text(common) + "\n";
    out += "    records  " + std::to_string(common.record_count) + ", from " +
           std::to_string(common.read_offset) + " to " + std::to_string(common.write_offset) + "\n";
    out += "    length   " + std::to_string(common.write_offset) + " used, " +
           std::to_string(facts.size) + " allocated, " + std::to_string(common.high_water) +
           " at most\n";
    put_users(out, facts, true);
    put_users(out, facts, false);
    for (const int slot : ownerless_waits(common))
        out += "    wait list: slot " + std::to_string(slot) + ", which no reader has\n";
    if (facts.common_locked) {
        out += "    locked at this moment";
        out += facts.common_holder == 0
                   ? "\n"
                   : " by process " + std::to_string(facts.common_holder) + "\n";
    }
    for (const std::string &damage : facts.damage)
        out += "    damaged: " + damage + "\n";
}

// ---- as JSON

// Appends "name":value with a comma in front, unless it comes first in its object.
static void put_member(std::string &out, const char *name, const std::string &value)
{
    if (out.back() != '{')
        out += ',';
    out += std::string("\"") + name + "\":" + value;
}

static std::string json_flag(bool on)
{
    return on ? "true" : "false";
}

// Process ids are null when there is none.
static std::string json_pid(int64_t pid)
{
    return pid == 0 ? "null" : std::to_string(pid);
}

template <typename T, typename F> static std::string json_list(const std::vector<T> &list, F item)
{
    std::string out = "[";
    for (const T &element : list) {
        if (out.size() > 1)
            out += ',';
        out += item(element);
    }
    return out + "]";
}

static std::string json_user(const tmf_common &common, const tmft_user &user, bool is_reader)
{
    std::string out = "{";
    put_member(out, "slot", std::to_string(user.slot));
    put_member(out, "pid", json_pid(user.pid));
    put_member(out, "lock_held",
               user.lock == TMFT_LOCK_UNKNOWN ? "null" : json_flag(user.lock == TMFT_LOCK_HELD));
    put_member(out, "lock_pid", json_pid(user.holder));
    if (is_reader) {
        put_member(out, "waiting", json_flag(tmft_bit(common.wait_list, user.slot)));
        put_member(out, "port", std::to_string(tmft_port(common, user.slot)));
    }
    return out + "}";
}

static std::string json_users(const tmft_facts &facts, bool is_reader)
{
    return json_list(is_reader ? facts.readers : facts.writers, [&](const tmft_user &user) {
        return json_user(facts.common, user, is_reader);
    });
}

static void put_json(std::string &out, const tmft_facts &facts, const char *file)
{
    const tmf_common &common = facts.common;
    const std::string time = stamp_time(common, 'T');
    std::string object = "{";
    const auto number = [&](const char *name, int64_t value) {
        put_member(object, name, std::to_string(value));
    };
    put_member(object, "file", json_text(file));
    put_member(object, "byte_order", json_text(order_text(facts)));
    put_member(object, "host_order", json_flag(!facts.other_order));
    put_member(object, "stamp", time.empty() ? "null" : json_text(stamp_of(common)));
    put_member(object, "stamp_time", time.empty() ? "null" : json_text(time + "Z"));
    number("records", common.record_count);
    number("read_offset", common.read_offset);
    number("used", common.write_offset);
    number("allocated", facts.size);
    number("high_water", common.high_water);
    number("num_readers", common.num_readers);
    number("num_writers", common.num_writers);
    put_member(object, "reader_exclusive",
               json_flag((common.flags & TMF_FLAG_READER_EXCLUSIVE) != 0));
    put_member(object, "writer_exclusive",
               json_flag((common.flags & TMF_FLAG_WRITER_EXCLUSIVE) != 0));
    put_member(object, "readers", json_users(facts, true));
    put_member(object, "writers", json_users(facts, false));
    put_member(object, "ownerless_waits",
               json_list(ownerless_waits(common), [](int slot) { return std::to_string(slot); }));
    put_member(object, "signal_address", json_text(address_text(common)));
    put_member(object, "locked", json_flag(facts.common_locked));
    put_member(object, "locked_by", json_pid(facts.common_holder));
    put_member(object, "damage", json_list(facts.damage, json_text));
    out += object + "}\n";
}

// ---- the command

struct info_options {
    bool json = false;
    std::vector<const char *> files;
};
static info_options options;

static constexpr cli_option rows[] = {
    {"--json", CLI_FLAG, &options.json},
    {"FILE", {.word = "FILE", .lacking = "which file?"}, &options.files},
};

static outcome run()
{
    outcome done;
    for (const char *file : options.files) {
        tmft_facts facts;
        if (outcome looked = tmft_look(facts, file); !looked) {
            done = tmft_complain(file, looked.text().c_str());
            continue;
        }
        if (!facts.damage.empty())
            done = OUTCOME_FAILED;
        std::string out;
        (options.json ? put_json : put_text)(out, facts, file);
        fputs(out.c_str(), stdout);
    }
    return done;
}

static const char help[] =
    "Usage: tmf info [--json] FILE...\n"
    "\n"
    "Says what is in message files: records, lengths, stamp, byte order, and the\n"
    "readers and writers registered, each with its process id and whether it still\n"
    "holds its lock.  Nothing is registered, locked or changed.\n"
    "\n"
    "  --json   one JSON object a line for each file\n"
    "  --help   print this (also -h)\n"
    "\n"
    "Exit status: 0 all shown; 1 a file could not be read, is not a message file or\n"
    "is damaged; 2 wrong command line.\n";

constinit const cli_command tmf_info_row = {
    .name = "info",
    .summary = "says what is in a message file and who has it open",
    .run = run,
    .options = rows,
    .help = help,
};
