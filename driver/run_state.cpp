// What is known of a run, and when it is told: at the start and the end, with each error,
// and else once a second while there are moments to do it at: records, and the looks of a
// library that knows Fwu_hook_look.
#include "driver/run_state.h"

#include "capture/format.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"
#include "driver/base/logrec.h"
#include "driver/own_files.h"
#include "fwutil/fwutil.h"
#include "util/notify.h"
#include "util/process_word.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <system_error>
#include <unistd.h>

bool g_run_state_on;

constexpr int64_t US_PER_S = 1'000'000;
constexpr int64_t NOTIFY_LEAST_US = 10'000; // whatever the service manager asks for

static run_state g_state;
static std::unique_ptr<cap_told[]> g_told; // of the capture files, in command-line order
static int64_t g_every_us;                 // between two tellings to the service manager
static int64_t g_notified_us;              // when it was told last
static bool g_ready;                       // the service manager is to be told that the run is
static bool g_ready_told;
static bool g_begun; // this process is the one that captures

// Costs next to nothing, and goes on by a few milliseconds at a time.
static int64_t now_us()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return now.tv_sec * US_PER_S + now.tv_nsec / 1000;
}

static run_position position_now()
{
    return {Fwu_CurrentLogGeneration(), Fwu_CurrentLogSequence(), Fwu_CurrentTagSequence()};
}

// Takes over what the capture files' own records say.
static void look_at_files()
{
    if (g_ci == nullptr)
        return;
    for (int i = 0; i < g_ci->ncf; i++) {
        run_file &file = g_state.files[static_cast<size_t>(i)];
        if (file.name != g_ci->capfiles[i]->name)
            file.name = g_ci->capfiles[i]->name;
        file.told = g_told[static_cast<size_t>(i)];
    }
}

// alive: a record was captured, or there is none to capture; what blocks or failed is
// not alive for a watchdog.
static void notify(int64_t at_us, bool alive)
{
    g_notified_us = at_us;
    std::string lines = "STATUS=" + notify_value(run_state_line(g_state));
    if (g_ready && !g_ready_told)
        lines += "\nREADY=1";
    if (alive)
        lines += "\nWATCHDOG=1";
    if (notify_send(lines))
        g_ready_told = g_ready_told || g_ready;
}

static void put(int64_t at_us, bool alive = false)
{
    g_state.updated_us = at_us;
    look_at_files();
    run_state_file_put(g_state);
    notify(at_us, alive);
}

// A clock that was set back makes it due as well.
static bool is_due(int64_t at_us, int64_t last_us, int64_t every_us)
{
    return at_us - last_us >= every_us || at_us < last_us;
}

static void put_alive_if_due(int64_t at_us)
{
    if (is_due(at_us, g_state.updated_us, US_PER_S))
        put(at_us, true);
    else if (is_due(at_us, g_notified_us, g_every_us))
        notify(at_us, true);
}

static void enter(const char *state)
{
    g_state.state = state;
}

static void take_error(const char *text, const char *detail)
{
    g_state.error = text;
    while (!g_state.error.empty() && g_state.error.back() == '\n')
        g_state.error.pop_back();
    if (detail != nullptr)
        g_state.error += std::string(": ") + detail;
    g_state.error_us = now_us();
    g_state.error_at = position_now();
    g_state.errors++;
    put(g_state.error_us);
}

static void on_error(const char *msg, const char *detail)
{
    // What the library has reported says more.
    if (!g_begun || (g_state.errors != 0 && strcmp(msg, PROCESS_FAILED) == 0))
        return;
    // Behind the end only what was to be printed can fail.
    if (strcmp(g_state.state, "stopped") == 0)
        enter("failed");
    take_error(msg, detail);
}

static std::string absolute(const char *path)
{
    std::error_code error;
    const std::filesystem::path whole = std::filesystem::absolute(path, error);
    return error ? path : whole.lexically_normal().string();
}

int run_state_begin(capinfo *ci, const char *pidfile, const char *cfgfile, const char *statfile)
{
    const char *path = getenv("KESTRO_STATUS");
    g_run_state_on = false;
    g_begun = false;
    g_error_told = nullptr;
    if ((path == nullptr || *path == '\0') && !notify_wanted())
        return 0;
    cfgfile = own_config_file(cfgfile);
    statfile = own_status_file(statfile);
    std::vector<std::string> others = {cfgfile, statfile};
    if (pidfile != nullptr)
        others.emplace_back(pidfile);
    g_state = run_state{};
    g_state.state = "starting";
    for (int i = 0; i < ci->ncf; i++) {
        const capfil *cf = ci->capfiles[i];
        others.emplace_back(cf->name);
        others.push_back(std::string(cf->name) + ".cut");
        others.push_back(std::string(cf->name) + ".cut.part");
        g_state.files.push_back({cf->name, cf->format->name, {}});
    }
    const int rc = run_state_file_open(path != nullptr ? path : "", others);
    if (rc != 0)
        return rc;
    g_told = std::make_unique<cap_told[]>(static_cast<size_t>(ci->ncf));
    for (int i = 0; i < ci->ncf; i++)
        ci->capfiles[i]->told = &g_told[static_cast<size_t>(i)];
    g_state.config = absolute(cfgfile);
    g_state.status = absolute(statfile);
    g_run_state_on = true;
    return 0;
}

void run_state_start()
{
    if (!g_run_state_on)
        return;
    // A file at its size limit is a write error, not the end of the process.
    signal(SIGXFSZ, SIG_IGN);
    g_state.boot = process_word(getpid());
    g_state.started_us = now_us();
    const int64_t watchdog_us = notify_watchdog_us();
    g_every_us =
        watchdog_us == 0 ? US_PER_S : std::clamp(watchdog_us / 2, NOTIFY_LEAST_US, US_PER_S);
    g_ready = g_ready_told = false;
    g_begun = true;
    g_error_told = on_error;
    put(g_state.started_us);
}

void run_state_count()
{
    const int64_t at_us = now_us();
    enter("running");
    g_ready = true;
    g_state.records++;
    g_state.position = position_now();
    for (int i = 0; i < g_ci->ncf; i++) {
        cap_told &told = g_told[static_cast<size_t>(i)];
        if (told.seen != told.records) {
            told.seen = told.records;
            told.last_us = at_us;
        }
    }
    put_alive_if_due(at_us);
}

void run_state_look(int what, const char *text)
{
    if (!g_begun)
        return;
    switch (what) {
    case FWU_LOOK_OPEN:
        enter("running");
        g_state.position = position_now();
        g_ready = true;
        put(now_us(), true);
        break;
    case FWU_LOOK_WAITING:
        enter("waiting");
        put_alive_if_due(now_us());
        break;
    case FWU_LOOK_ERROR:
        take_error(text, nullptr);
        break;
    default: // of a library to come
        break;
    }
}

void run_state_closing()
{
    if (!g_begun)
        return;
    look_at_files();
    (void)notify_send("STOPPING=1"); // lost, it changes nothing
}

void run_state_end(bool failed)
{
    if (!g_begun)
        return;
    enter(failed ? "failed" : "stopped");
    put(now_us());
    run_state_file_release(); // who finds the end there may begin the next run
}
