// A log of random changes, and what its tables must hold behind each transaction: texts of all
// kinds, nulls, keys that change, rows that are equal, columns that come and go, values that are
// whole beside their record or not known.
#ifndef TESTS_TOOLS_FWLOG_RANDOM_CHANGES_H
#define TESTS_TOOLS_FWLOG_RANDOM_CHANGES_H

#include "changes/value.h"
#include "fwutil/fwutil.h"
#include "tests/changes/written_log.h"

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

// Values as texts, in the order of the columns; null as \N.
using model_row = std::vector<std::string>;

class random_changes {
  public:
    random_changes(written_log &to, unsigned seed) : log(to), random(seed)
    {
    }

    void transaction()
    {
        log.begin();
        if (altered) // so that the log has the layout
            change_odd();
        altered = false;
        for (int n = 1 + below(6); n > 0; n--)
            change();
        log.commit();
    }

    // From the next transaction on table "odd" has another column, or lacks it.
    void alter()
    {
        with_extra = !with_extra;
        altered = true;
        for (auto &[no, row] : odd) {
            if (with_extra)
                row.push_back("\\N");
            else
                row.pop_back();
        }
    }

    // In UTF-8.
    std::multiset<model_row> odd_rows() const
    {
        std::multiset<model_row> rows;
        for (const auto &[no, row] : odd)
            rows.insert(utf8(row));
        return rows;
    }

    std::multiset<model_row> plain_rows() const
    {
        std::multiset<model_row> rows;
        for (const model_row &row : plain)
            rows.insert(utf8(row));
        return rows;
    }

    bool with_extra = false;
    static constexpr const char *ODD = "it's \"odd\"; --";
    static constexpr const char *NAME = "na\"me";

  private:
    static model_row utf8(const model_row &row)
    {
        model_row out;
        for (const std::string &value : row)
            change_put_utf8(out.emplace_back(), value);
        return out;
    }

    int below(int limit)
    {
        return static_cast<int>(random() % static_cast<unsigned>(limit));
    }

    std::string some_text(size_t size)
    {
        static const std::string parts[] = {"'",   "''",  "\\", "\"",      ";",  "--",   "/*",
                                            "*/",  "$$",  "\n", "\r\n",    "\t", "\xFC", "\x80",
                                            ":x",  "E'",  "%s", "COMMIT;", " ",  "a",    "NULL",
                                            "\\n", "\\.", "{}", ","};
        std::string text;
        for (int n = below(6); n > 0; n--)
            text += parts[static_cast<size_t>(below(std::size(parts)))];
        text.resize(std::min(text.size(), size));
        text.resize(text.find_last_not_of(' ') + 1);
        return text == "\\N" ? "N" : text;
    }

    fwu_layout odd_layout() const
    {
        fwu_layout layout{.dbname = "SHOP", .dsetname = "ODD", .items = {}};
        layout.items = {{.name = "NO", .type = 'I', .size = 4},
                        {.name = "NET", .type = 'P', .size = 4, .item_aux = 2},
                        {.name = "NAME", .type = 'X', .size = 9}};
        fwu_source source;
        source.schema = "shop";
        source.table = ODD;
        source.columns = {{.name = "no", .type = "integer", .item = 0, .key = 1},
                          {.name = "net", .type = "numeric(12,2)", .item = 1},
                          {.name = NAME, .type = "text", .item = 2}};
        if (with_extra) {
            layout.items.push_back({.name = "EXTRA", .type = 'X', .size = 8});
            source.columns.push_back({.name = "extra", .type = "text", .item = 3});
        }
        return finish(layout, source);
    }

    static fwu_layout plain_layout()
    {
        fwu_layout layout{.dbname = "SHOP", .dsetname = "PLAIN", .items = {}};
        layout.items = {{.name = "A", .type = 'I', .size = 2},
                        {.name = "B", .type = 'X', .size = 1}};
        fwu_source source;
        source.schema = "shop";
        source.table = "plain";
        source.columns = {{.name = "a", .type = "smallint", .item = 0},
                          {.name = "b", .type = "text", .item = 1}};
        return finish(layout, source);
    }

    static fwu_layout finish(fwu_layout &layout, fwu_source &source)
    {
        const auto count = static_cast<int32_t>(layout.items.size());
        source.null_map = count;
        layout.items.push_back({.name = "NULL-MAP", .type = 'X', .size = count});
        layout.source = std::make_shared<const fwu_source>(source);
        return layout;
    }

    // The bytes of a row, but for items that are not to be known; what they do not hold goes to
    // values.
    std::string image(const fwu_layout &layout, const model_row &row, fwu_image which,
                      const std::set<size_t> &unknown = {})
    {
        std::string bytes;
        std::string flags;
        for (size_t i = 0; i < row.size(); i++) {
            const fwu_item &item = layout.items[i];
            const auto size = static_cast<size_t>(item.size);
            const bool null = row[i] == "\\N";
            const bool blank = null || unknown.count(i) > 0;
            std::string value = !blank ? row[i] : item.type == 'X' ? "" : "0";
            std::string digits = value;
            std::erase_if(digits, [](char c) { return c == '-' || c == '.'; });
            const bool whole = item.type == 'X' ? value.size() > size
                                                : item.type == 'P' && digits.size() >= 2 * size;
            flags.push_back(unknown.count(i) > 0 ? '?' : null ? 'N' : '.');
            if (whole) {
                flags.back() = item.type == 'X' ? 'C' : '!';
                change_put_utf8(texts.emplace_back(), value);
                values.push_back({static_cast<int32_t>(i), which, texts.back()});
                value.resize(item.type == 'X' ? size : 0);
                digits = "0";
            }
            if (item.type == 'X') {
                bytes += value + std::string(size - value.size(), ' ');
            } else if (item.type == 'I') {
                bytes += le(static_cast<uint64_t>(std::stoll(value)), size);
            } else { // packed
                digits.insert(0, 2 * size - 1 - digits.size(), '0');
                digits.push_back(value.starts_with('-') ? '=' : '<'); // half bytes D and C
                for (size_t at = 0; at < digits.size(); at += 2)
                    bytes.push_back(
                        static_cast<char>((digits[at] - '0') << 4 | (digits[at + 1] - '0')));
            }
        }
        return bytes + flags;
    }

    // Either row may be missing.  An item that is not to be known is not known of its row only.
    void put(int32_t opcode, const fwu_layout &layout, const model_row *before,
             const model_row *after, const std::set<size_t> &unknown_before = {},
             const std::set<size_t> &unknown_after = {})
    {
        values.clear();
        texts.clear();
        const std::string old_image =
            before == nullptr ? "" : image(layout, *before, FWU_IMAGE_BEFORE, unknown_before);
        const std::string new_image =
            after == nullptr ? "" : image(layout, *after, FWU_IMAGE_AFTER, unknown_after);
        log.change(opcode, layout, old_image, new_image, values);
    }

    // Items of a row with a key that its source sends it without: all but the key, or some.
    std::set<size_t> some_but_the_first(const model_row &row)
    {
        std::set<size_t> items;
        const int how = below(3);
        for (size_t i = 1; how > 0 && i < row.size(); i++)
            if (how == 1 || below(2) == 0)
                items.insert(i);
        return items;
    }

    std::string some_net()
    {
        if (below(4) == 0)
            return "\\N";
        const int cents = (below(2000000) - 1000000) * (below(8) == 0 ? 1000 : 1);
        char text[32];
        (void)snprintf(text, sizeof text, "%s%d.%02d", cents < 0 ? "-" : "", std::abs(cents) / 100,
                       std::abs(cents) % 100);
        return text;
    }

    model_row odd_row(int no)
    {
        model_row row = {std::to_string(no), some_net(), below(5) == 0 ? "\\N" : some_text(20)};
        if (with_extra)
            row.push_back(below(3) == 0 ? "\\N" : some_text(8));
        return row;
    }

    void change_odd()
    {
        const fwu_layout layout = odd_layout();
        const int no = below(40) - 5;
        const auto found = odd.find(no);
        if (found == odd.end()) {
            odd[no] = odd_row(no);
            put(FWU_OP_INSERT, layout, nullptr, &odd[no]);
            return;
        }
        const model_row before = found->second;
        const int other = below(40) - 5;
        if (below(3) == 0) {
            put(FWU_OP_DELETE, layout, &before, nullptr, some_but_the_first(before));
            odd.erase(found);
        } else {
            const int to = odd.count(other) == 0 ? other : no;
            odd.erase(found);
            model_row &after = odd[to] = odd_row(to);
            const std::set<size_t> stay = some_but_the_first(after);
            for (const size_t i : stay) // values that an update leaves are not sent
                after[i] = before[i];
            put(FWU_OP_UPDATE, layout, &before, &after, some_but_the_first(before), stay);
        }
    }

    model_row plain_row()
    {
        return {below(4) == 0 ? "\\N" : std::to_string(below(3)),
                below(4) == 0 ? "\\N" : some_text(2)};
    }

    void change_plain()
    {
        const fwu_layout layout = plain_layout();
        if (plain.size() < 5 || below(3) == 0) {
            plain.push_back(plain_row());
            put(FWU_OP_INSERT, layout, nullptr, &plain.back());
            return;
        }
        const size_t at = static_cast<size_t>(below(static_cast<int>(plain.size())));
        const model_row before = plain[at];
        if (below(2) == 0) {
            put(FWU_OP_DELETE, layout, &before, nullptr);
            plain.erase(plain.begin() + static_cast<ptrdiff_t>(at));
        } else {
            plain[at] = plain_row();
            put(FWU_OP_UPDATE, layout, &before, &plain[at]);
        }
    }

    void change()
    {
        if (below(2) == 0)
            change_odd();
        else
            change_plain();
    }

    written_log &log;
    std::vector<fwu_value> values; // of the change in hand
    std::deque<std::string> texts; // what they point into
    std::mt19937 random;
    bool altered = false;
    std::map<int, model_row> odd;
    std::vector<model_row> plain;
};

#endif
