// Each kind of item has a row: what fits it, and what is taken from it.
#include "records/header.h"

#include "capture/hdrtext.h"
#include "util/json_text.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <ctime>

static bool is_digits(std::string_view text)
{
    return text.find_first_not_of("0123456789") == text.npos;
}

static int number_of(std::string_view digits)
{
    int number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number;
}

static std::string_view without_blanks(std::string_view text)
{
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

// Functions that read an item; false: the text does not fit it.

static bool take_sequence(rec_header &, std::string_view text)
{
    return is_digits(text);
}

static bool take_name(rec_header &header, std::string_view text)
{
    header.key += text;
    return true;
}

// The time zone is this process's, as it was Kestro's.  In the hour that comes twice the system
// chooses which one is meant.
static bool take_date(rec_header &header, std::string_view text)
{
    if (header.date == text)
        return true;
    const size_t year_size = text.size() - (sizeof "MMDDhh:mm:ss" - 1);
    const std::string_view year = text.substr(0, year_size);
    const std::string_view rest = text.substr(year_size); // MMDDhh:mm:ss
    if (!is_digits(year) || !is_digits(rest.substr(0, 6)) || rest[6] != ':' ||
        !is_digits(rest.substr(7, 2)) || rest[9] != ':' || !is_digits(rest.substr(10, 2)))
        return false;
    struct tm tm = {};
    tm.tm_year = number_of(year) + (year_size == 2 ? 100 : -1900);
    tm.tm_mon = number_of(rest.substr(0, 2)) - 1;
    tm.tm_mday = number_of(rest.substr(2, 2));
    tm.tm_hour = number_of(rest.substr(4, 2));
    tm.tm_min = number_of(rest.substr(7, 2));
    tm.tm_sec = number_of(rest.substr(10, 2));
    tm.tm_isdst = -1;
    const std::chrono::year_month_day day{std::chrono::year(tm.tm_year + 1900),
                                          std::chrono::month(static_cast<unsigned>(tm.tm_mon + 1)),
                                          std::chrono::day(static_cast<unsigned>(tm.tm_mday))};
    if (!day.ok() || tm.tm_hour > 23 || tm.tm_min > 59 || tm.tm_sec > 60)
        return false;
    header.second = mktime(&tm);
    header.date = text;
    return true;
}

static bool take_op(rec_header &header, std::string_view text)
{
    static constexpr struct {
        std::string_view letters;
        change_op op;
    } OPS[] = {{"IP", CHANGE_CREATE}, {"IU", CHANGE_UPDATE}, {"ID", CHANGE_DELETE}};
    for (const auto &row : OPS) {
        if (row.letters != text)
            continue;
        header.op = row.op;
        return true;
    }
    return false;
}

static void set_session(rec_header &header, size_t entry, std::string_view text)
{
    std::string &kept = header.texts[entry];
    const std::string_view wanted = without_blanks(text);
    if (kept != wanted)
        kept = wanted;
    header.session.entry[entry] = kept.empty() ? nullptr : kept.c_str();
}

// An entry of the session, as FWU_SESSION_KEYS has them.
template <size_t entry> static bool take_session(rec_header &header, std::string_view text)
{
    set_session(header, entry, text);
    return true;
}

// A blank, and zeros in front.
static bool take_pid(rec_header &header, std::string_view text)
{
    constexpr size_t entry = 3;
    if (text.starts_with(' '))
        text.remove_prefix(std::min(text.find_first_not_of(" 0"), text.size() - 1));
    set_session(header, entry, text);
    return true;
}

static bool take_info(rec_header &header, std::string_view text)
{
    constexpr size_t entry = 4;
    set_session(header, entry, text);
    return true;
}

static bool take_record(rec_header &header, std::string_view text)
{
    const char *const end = text.data() + text.size();
    return is_digits(text) && std::from_chars(text.data(), end, header.record).ec == std::errc();
}

struct kind_row {
    const char *fits; // what the item has to be
    bool (*take)(rec_header &header, std::string_view text);
};

static constexpr kind_row KINDS[HDRKINDS] = {
    // clang-format off
    /* HDRKIND_NONE     */ {"the session's info text", take_info},
    /* HDRKIND_SEQUENCE */ {"the record's number, six digits", take_sequence},
    /* HDRKIND_DBNAME   */ {"the database", take_name},
    /* HDRKIND_DBFGA    */ {"the database", take_name},
    /* HDRKIND_DSETNAME */ {"the dataset", take_name},
    /* HDRKIND_DATE4    */ {"the time, YYYYMMDDhh:mm:ss", take_date},
    /* HDRKIND_DATE2    */ {"the time, YYMMDDhh:mm:ss", take_date},
    /* HDRKIND_OP       */ {"the operation, IP, IU or ID", take_op},
    /* HDRKIND_PROG     */ {"the program", take_session<0>},
    /* HDRKIND_SESSION  */ {"the user", take_session<1>},
    /* HDRKIND_DBUSER   */ {"the login", take_session<2>},
    /* HDRKIND_PID      */ {"the process id", take_pid},
    /* HDRKIND_RECNUM   */ {"the log record number, 15 digits", take_record},
    // clang-format on
};

void rec_header_make(rec_header &header, const rec_form &form)
{
    header = {};
    const hdrkinds_of of =
        cap_header_kinds((form.exthdr ? HDR_EXTHDR : 0) | (form.yyyy ? HDR_YYYY : 0) |
                         (form.recnum ? HDR_RECNUM : 0) | (form.fga ? HDR_FGA : 0));
    for (size_t i = 0; i < of.n; i++) {
        const auto size = static_cast<size_t>(cap_header_item_size(of.kind[i]));
        header.items[i] = {of.kind[i], of.kind[i] == form.info, header.length, size};
        header.length += size;
    }
    header.n = of.n;
}

static void put_wrong(std::string &wrong, const rec_header_item &item, std::string_view text)
{
    wrong = "at offset " + std::to_string(item.offset) + " stands ";
    if (json_text_printable(text)) {
        json_text_append(wrong, text);
    } else {
        wrong += "0x";
        json_text_hex(wrong, text);
    }
    wrong += ", where these options have " + std::string(KINDS[item.kind].fits);
}

bool rec_header_take(rec_header &header, std::string_view record, std::string &wrong)
{
    header.key.clear();
    for (size_t i = 0; i < header.n; i++) {
        const rec_header_item &item = header.items[i];
        const std::string_view text = record.substr(item.offset, item.size);
        const kind_row &row = KINDS[item.info ? HDRKIND_NONE : item.kind];
        if (!row.take(header, text)) {
            put_wrong(wrong, item, text);
            return false;
        }
    }
    return true;
}

static bool is_of_session(const rec_header_item &item)
{
    return item.info || item.kind == HDRKIND_PROG || item.kind == HDRKIND_SESSION ||
           item.kind == HDRKIND_DBUSER || item.kind == HDRKIND_PID;
}

size_t rec_header_line_end(const rec_header &header, std::string_view line)
{
    for (size_t i = 0; i < header.n && header.items[i].offset < line.size(); i++) {
        const rec_header_item &item = header.items[i];
        const size_t found = line.substr(item.offset, item.size).find('\n');
        if (found != line.npos && !is_of_session(item))
            return item.offset + found;
    }
    return line.npos;
}

rec_header_names rec_header_tells(const rec_header &header)
{
    rec_header_names names;
    std::string_view key = header.key;
    for (size_t i = 0; i < header.n; i++) {
        const rec_header_item &item = header.items[i];
        const bool is_name = item.kind == HDRKIND_DBNAME || item.kind == HDRKIND_DBFGA ||
                             item.kind == HDRKIND_DSETNAME;
        if (item.info || !is_name)
            continue;
        const std::string_view field = key.substr(0, item.size);
        key.remove_prefix(field.size());
        if (item.kind == HDRKIND_DSETNAME)
            names.dataset = without_blanks(field);
        else if (item.kind == HDRKIND_DBNAME && field.ends_with(' '))
            names.database = without_blanks(field);
    }
    return names;
}

static void put_padded(std::string &key, std::string_view name, size_t size)
{
    name = name.substr(0, size);
    key += name;
    key.append(size - name.size(), ' ');
}

std::string rec_header_key(const rec_header &header, const std::string &database,
                           const std::string &dataset)
{
    std::string key;
    for (size_t i = 0; i < header.n; i++) {
        const rec_header_item &item = header.items[i];
        if (item.info)
            continue;
        if (item.kind == HDRKIND_DBNAME) {
            put_padded(key, database, item.size);
        } else if (item.kind == HDRKIND_DBFGA) {
            char parts[FGA_SIZE];
            movefga(parts, database.c_str());
            key.append(parts, item.size);
        } else if (item.kind == HDRKIND_DSETNAME) {
            put_padded(key, dataset, item.size);
        }
    }
    return key;
}
