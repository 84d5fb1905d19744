// The line, without its breaks: {"done":false,"tables":[{"table":"sales.orders",
// "state":"taking","rows":10,"estimate":-1,"reason":""}, ...]}.  What is read is what is written
// here, to the byte.
#include "feed/postgresql/answer.h"

#include "fwutil/fwu_source_name.h"
#include "util/json_text.h"

#include <array>
#include <charconv>

static constexpr std::array<std::string_view, 4> words = {"asked", "taking", "followed", "refused"};

std::string pgr_answer_text(const pgr_answer &answer)
{
    std::string text = answer.done ? R"({"done":true,"tables":[)" : R"({"done":false,"tables":[)";
    const char *between = "";
    for (const pgr_table &table : answer.tables) {
        text += between;
        text += R"({"table":)" + json_text(table.name) + R"(,"state":)" +
                json_text(words[table.state]) + R"(,"rows":)" + std::to_string(table.rows) +
                R"(,"estimate":)" + std::to_string(table.estimate) + R"(,"reason":)" +
                json_text(table.reason) + "}";
        between = ",";
    }
    return text + "]}\n";
}

static bool take(std::string_view &text, std::string_view expected)
{
    if (!text.starts_with(expected))
        return false;
    text.remove_prefix(expected.size());
    return true;
}

template <typename Number> static bool take_number(std::string_view &text, Number &number)
{
    const auto [rest, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<size_t>(rest - text.data()));
    return code == std::errc();
}

static bool take_state(std::string_view &text, pgr_state &state)
{
    std::string word;
    if (!json_text_take(word, text))
        return false;
    for (size_t i = 0; i < words.size(); i++)
        if (word == words[i]) {
            state = static_cast<pgr_state>(i);
            return true;
        }
    return false;
}

static bool take_table(std::string_view &text, pgr_table &table)
{
    return take(text, R"({"table":)") && json_text_take(table.name, text) &&
           take(text, R"(,"state":)") && take_state(text, table.state) &&
           take(text, R"(,"rows":)") && take_number(text, table.rows) &&
           take(text, R"(,"estimate":)") && take_number(text, table.estimate) &&
           take(text, R"(,"reason":)") && json_text_take(table.reason, text) && take(text, "}");
}

bool pgr_answer_read(pgr_answer &answer, std::string_view text)
{
    pgr_answer read;
    read.done = text.starts_with(R"({"done":true)");
    if (!take(text, read.done ? R"({"done":true,"tables":[)" : R"({"done":false,"tables":[)"))
        return false;
    while (!text.starts_with("]")) {
        if (!read.tables.empty() && !take(text, ","))
            return false;
        if (!take_table(text, read.tables.emplace_back()))
            return false;
    }
    if (text != "]}\n")
        return false;
    answer = std::move(read);
    return true;
}

std::string pgr_table_name(std::string_view word)
{
    std::vector<std::string> parts;
    if (!fwu_source_name_parts(parts, word) || parts.size() != 2)
        return {};
    return fwu_source_name(parts[0], parts[1]);
}
