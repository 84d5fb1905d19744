// The texts have fixed fields with a blank between them.  What is read from a stream is checked:
// the offsets have to be in their order, and the id has to be the one that the place gives.
#include "ship/place.h"

#include "fwutil/fwu_start.h"

#include <charconv>

static void put_number(std::string &out, int64_t number)
{
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, number);
    out.append(digits, end.ptr);
}

static void put_file(std::string &out, const fwu_file_number &file)
{
    put_number(out, file.generation);
    out += '-';
    put_number(out, file.sequence);
}

static void put_commit(std::string &out, const fwu_commit &commit)
{
    put_number(out, commit.time_us);
    out += ' ';
    out += fwu_lsn_text(commit.lsn);
    out += ' ';
    out += std::to_string(commit.xid);
}

void ship_place_put(std::string &out, const ship_place &place)
{
    put_file(out, place.file);
    for (const int64_t offset : {place.from, place.to, place.begin, place.end}) {
        out += ' ';
        put_number(out, offset);
    }
    out += ' ';
    put_commit(out, place.commit);
    if (place.file_before.generation != 0) {
        out += " behind ";
        put_file(out, place.file_before);
        out += ' ';
        put_number(out, place.size_before);
    }
    if (place.has_commit_before) {
        out += " after ";
        put_commit(out, place.commit_before);
    }
}

void ship_id_put(std::string &out, const ship_place &place)
{
    out += fwu_identity_text(place.log);
    out += '.';
    put_file(out, place.file);
    out += '.';
    put_number(out, place.to);
}

namespace {
// Takes fields from the front of a text.
struct fields {
    std::string_view rest;
    bool good = true;

    std::string_view word()
    {
        const size_t end = rest.find(' ');
        const std::string_view found = rest.substr(0, end);
        rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
        return found;
    }
    template <typename T> void number(T &out, std::string_view text)
    {
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
        good = good && error == std::errc() && end == text.data() + text.size() && !text.empty();
    }
    template <typename T> void number(T &out)
    {
        number(out, word());
    }
    void file(fwu_file_number &out)
    {
        const std::string_view text = word();
        const size_t hyphen = text.find('-');
        if (hyphen == text.npos) {
            good = false;
            return;
        }
        number(out.generation, text.substr(0, hyphen));
        number(out.sequence, text.substr(hyphen + 1));
        good = good && out.generation > 0 && out.sequence > 0;
    }
    void commit(fwu_commit &out)
    {
        number(out.time_us);
        good = fwu_lsn_parse(out.lsn, word()) && good;
        number(out.xid);
    }
};
} // namespace

bool ship_place_get(ship_place &place, std::string_view text, std::string_view id)
{
    place = {};
    fields in = {.rest = text};
    in.file(place.file);
    for (int64_t *offset : {&place.from, &place.to, &place.begin, &place.end})
        in.number(*offset);
    in.commit(place.commit);
    while (in.good && !in.rest.empty()) {
        const std::string_view word = in.word();
        if (word == "behind") {
            in.file(place.file_before);
            in.number(place.size_before);
        } else if (word == "after") {
            place.has_commit_before = true;
            in.commit(place.commit_before);
        } else {
            in.good = false;
        }
    }
    const size_t point = id.find('.');
    if (!in.good || point == id.npos || !fwu_identity_parse(place.log, id.substr(0, point)))
        return false;
    const bool ordered = place.from >= 0 && place.from < place.to && place.to <= place.end &&
                         place.begin <= place.end &&
                         (place.from >= place.begin || place.from == 0) &&
                         place.begin >= static_cast<int64_t>(FWU_FILE_HEADER_SIZE);
    std::string same;
    ship_id_put(same, place);
    return ordered && same == id;
}

std::string ship_place_text(const ship_place &place)
{
    std::string out;
    put_file(out, place.file);
    out += " offset ";
    put_number(out, place.to);
    return out;
}
