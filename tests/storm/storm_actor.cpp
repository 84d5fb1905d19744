// Starts, kills and limits of one program.
#include "tests/storm/storm_actor.h"

#include <sys/resource.h>

static std::string last_line(std::string text)
{
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    std::string line;
    for (const char c : text.substr(text.rfind('\n') + 1)) {
        const bool digit = c >= '0' && c <= '9';
        if (!digit)
            line += c;
        else if (line.empty() || line.back() != 'N')
            line += 'N';
    }
    return line.substr(0, 300);
}

static void note_end(storm_actor &actor)
{
    actor.stopped = actor.limited = false;
    actor.endings[actor.process.status]++;
    if (actor.process.status > 0 && actor.process.status < 128)
        actor.told[last_line(actor.process.err())]++;
    // Statuses above 128 that are no signals it ends by itself with.
    if (actor.process.status > 128 && actor.process.status != 128 + SIGTERM)
        actor.killed++;
}

static void set_limit(const storm_actor &actor, rlim_t bytes)
{
    struct rlimit limit = {};
    if (actor.process.pid <= 0 || prlimit(actor.process.pid, RLIMIT_FSIZE, nullptr, &limit) != 0)
        return;
    limit.rlim_cur = bytes;
    (void)prlimit(actor.process.pid, RLIMIT_FSIZE, &limit, nullptr); // it may have ended by now
}

bool storm_runs(storm_actor &actor)
{
    const bool was = actor.process.pid > 0;
    if (actor.process.running())
        return true;
    if (was)
        note_end(actor);
    return false;
}

void storm_tend(storm_actor &actor, std::mt19937 &random)
{
    const auto now = storm_clock::now();
    const bool was = actor.process.pid > 0;
    if (storm_runs(actor)) {
        if (actor.stopped && now >= actor.goes_on) {
            actor.process.signal(SIGCONT);
            actor.stopped = false;
        }
        if (actor.limited && now >= actor.grows_on) {
            set_limit(actor, RLIM_INFINITY);
            actor.limited = false;
        }
        return;
    }
    if (was)
        actor.starts_again = now + std::chrono::milliseconds(random() % 400);
    if (now < actor.starts_again)
        return;
    actor.runs++;
    actor.process.start(actor.argv(actor.runs), actor.options, actor.output(actor.runs));
}

int storm_end(storm_actor &actor, int signal)
{
    if (!storm_runs(actor))
        return 0;
    if (actor.stopped && signal != SIGKILL)
        actor.process.signal(SIGCONT);
    actor.process.end(signal);
    note_end(actor);
    return actor.process.status;
}

void storm_stop(storm_actor &actor, std::chrono::milliseconds time)
{
    actor.process.signal(SIGSTOP);
    actor.stopped = true;
    actor.goes_on = storm_clock::now() + time;
}

void storm_limit(storm_actor &actor, uint64_t bytes, std::chrono::milliseconds time)
{
    set_limit(actor, bytes);
    actor.limited = true;
    actor.grows_on = storm_clock::now() + time;
}

void storm_calm(storm_actor &actor)
{
    actor.goes_on = actor.grows_on = actor.starts_again = {};
}
