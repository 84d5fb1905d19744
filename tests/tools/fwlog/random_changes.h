// A log of random changes, and what its tables must hold behind each transaction: texts of all
// kinds, nulls, keys that change, rows that are equal, columns that come and go.
#ifndef TESTS_TOOLS_FWLOG_RANDOM_CHANGES_H
#define TESTS_TOOLS_FWLOG_RANDOM_CHANGES_H

#include "changes/value.h"
#include "fwutil/fwutil.h"
#include "tests/changes/written_log.h"

#include <algorithm>
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
                        {.name = "NAME", .type = 'X', .size = 20}};
        fwu_source source;
        source.schema = "shop";
        source.table = ODD;
        source.columns = {{.name = "no", .type = "integer", .item = 0, .key = 1},
                          {.name = "net", .type = "numeric(7,2)", .item = 1},
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
                        {.name = "B", .type = 'X', .size = 10}};
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

    // The bytes of a row.
    static std::string image(const fwu_layout &layout, const model_row &row)
    {
        std::string bytes;
        std::string nulls;
        for (size_t i = 0; i < row.size(); i++) {
            const fwu_item &item = layout.items[i];
            const bool null = row[i] == "\\N";
            nulls.push_back(null ? 'N' : '.');
            const std::string value = null && item.type != 'X' ? "0" : null ? "" : row[i];
            const auto size = static_cast<size_t>(item.size);
            if (item.type == 'X') {
                bytes += value + std::string(size - value.size(), ' ');
            } else if (item.type == 'I') {
                bytes += le(static_cast<uint64_t>(std::stoll(value)), size);
            } else { // packed
                std::string digits = value;
                std::erase_if(digits, [](char c) { return c == '-' || c == '.'; });
                digits.insert(0, 2 * size - 1 - digits.size(), '0');
                digits.push_back(value.front() == '-' ? '=' : '<'); // half bytes D and C
                for (size_t at = 0; at < digits.size(); at += 2)
                    bytes.push_back(
                        static_cast<char>((digits[at] - '0') << 4 | (digits[at + 1] - '0')));
            }
        }
        return bytes + nulls;
    }

    std::string some_net()
    {
        if (below(4) == 0)
            return "\\N";
        const int cents = below(2000000) - 1000000;
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
            log.insert(layout, image(layout, odd[no]));
            return;
        }
        const model_row before = found->second;
        const int other = below(40) - 5;
        if (below(3) == 0) {
            log.change(FWU_OP_DELETE, layout, image(layout, before), "");
            odd.erase(found);
        } else {
            const int to = odd.count(other) == 0 ? other : no;
            odd.erase(found);
            odd[to] = odd_row(to);
            log.change(FWU_OP_UPDATE, layout, image(layout, before), image(layout, odd[to]));
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
            log.insert(layout, image(layout, plain.back()));
            return;
        }
        const size_t at = static_cast<size_t>(below(static_cast<int>(plain.size())));
        const model_row before = plain[at];
        if (below(2) == 0) {
            log.change(FWU_OP_DELETE, layout, image(layout, before), "");
            plain.erase(plain.begin() + static_cast<ptrdiff_t>(at));
        } else {
            plain[at] = plain_row();
            log.change(FWU_OP_UPDATE, layout, image(layout, before), image(layout, plain[at]));
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
    std::mt19937 random;
    bool altered = false;
    std::map<int, model_row> odd;
    std::vector<model_row> plain;
};

#endif
