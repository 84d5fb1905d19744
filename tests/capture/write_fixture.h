// Writing one record of ORDERS.CUST to capture files.
#ifndef TESTS_CAPTURE_WRITE_FIXTURE_H
#define TESTS_CAPTURE_WRITE_FIXTURE_H

#include "capture/slist.h"
#include "capture/stats.h"
#include "capture/write.h"
#include "driver/base/logrec.h"
#include "tests/support/core_state.h"
#include "tests/support/tempdir.h"

// Header of a record of ORDERS.CUST at 1 January 2024, UTC.
#define HEADER(seq, op) seq "ORDERS                  CUST            24010100:00:00" op

inline constexpr char before_image[] = "old!";
inline constexpr char after_image[] = "new!";

class Write : public core_state {
  protected:
    Write()
    {
        g_fwu.items = {{"NAME", 'X', 3}, {"MARK", 'X', 1}};
        get_dsetinfo(g_ci->dsets);
        record.dbname = "ORDERS";
        record.dsetname = "CUST";
        record.logtime = 1704067200;
        record.recnum = 7;
        record.reclen = 4;
        record.before_image = before_image;
        record.after_image = after_image;
    }

    capfil *text_file(const std::string &name)
    {
        return add_file(dir.file(name), text_options());
    }

    std::string content(const std::string &name)
    {
        return read_file(dir.file(name));
    }

    // Result of writing the record; what is printed goes to printed.
    int write(int (*how)(capinfo *, const log_record *))
    {
        int rc = 0;
        printed = capture([&] { rc = how(g_ci, &record); });
        return rc;
    }

    static setstats stats_of(const slist *list)
    {
        if (list == nullptr || list->n == 0)
            return {0, 0, 0};
        const auto *sets = static_cast<slist *>(slist_find(list, "ORDERS"));
        return *static_cast<setstats *>(slist_find(sets, "CUST"));
    }

    const tempdir dir;
    log_record record = {};
    captured printed;
};

#endif
