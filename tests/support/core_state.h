// A test of the capture program's parts: fresh run state and a fresh scripted
// forward-log library for each case, nothing left behind.
#ifndef TESTS_SUPPORT_CORE_STATE_H
#define TESTS_SUPPORT_CORE_STATE_H

#include "capture/capinfo.h"
#include "capture/write.h"
#include "driver/base/dsetinfo.h"
#include "driver/base/globals.h"
#include "driver/base/logrec.h"
#include "tests/support/captured.h"
#include "tests/support/fake_fwutil.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>

class core_state : public testing::Test {
  protected:
    core_state()
    {
        g_fwu = {};
        init_globals();
        g_ci = new_capinfo();
        unsetenv("KESTRO_MAXCAP");
        set_zone("UTC");
    }
    ~core_state() override
    {
        (void)capture([] { capture_close(g_ci); });
        init_globals();
        g_fwu = {};
    }

    static void set_zone(const char *zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }

    // An insert into a dataset of one item of four characters, which the library knows.
    static log_record customer()
    {
        g_fwu.items = {{"NAME", 'X', 4}};
        get_dsetinfo(g_ci->dsets);
        log_record record = {};
        record.dbname = "ORDERS";
        record.dsetname = "CUST";
        record.logtime = 1704067200;
        record.reclen = 4;
        record.after_image = "new!";
        return record;
    }

    // Adds a capture file with these options and returns it.
    static capfil *add_file(const std::string &name, capcfg cfg = {})
    {
        (void)capture([&] { add_capfile(g_ci, name.c_str(), &cfg); });
        return g_ci->capfiles[g_ci->ncf - 1];
    }
};

// A capture file's options, the others zero.
inline capcfg text_options(uint32_t ascii_flags = ASCII_ON, uint32_t hdropts = 0)
{
    capcfg cfg = {};
    cfg.ascii_flags = ascii_flags;
    cfg.hdropts = hdropts;
    return cfg;
}

#endif
