// The library's calls.  Nothing is thrown across them.
#pragma GCC visibility push(default)
#include "fwutil/fwutil.h"
#pragma GCC visibility pop

#include "fwutil/fwu_current.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_process.h"
#include "fwutil/fwu_report.h"

#include <cstdio>
#include <cstring>
#include <exception>

#define FWU_VERSION "1.0"

static bool sync_only = false;

int Fwu_process(fwu_callback callback, const char *cfg, const char *status, const char *start)
{
    try {
        return fwu_process_run(callback, cfg, status, start, sync_only);
    } catch (const std::exception &e) {
        return fwu_error("reading the log failed: %s", e.what());
    }
}

void Fwu_verbose(int on)
{
    fwu_set_verbose(on);
}

void Fwu_synconly(int on)
{
    sync_only = on != 0;
}

int Fwu_status(const char *status, int verbose)
{
    try {
        const int result = fwu_report_status(status, verbose != 0);
        (void)fflush(stdout); // the caller's own output sees to errors
        return result;
    } catch (const std::exception &e) {
        return fwu_error("reading the status failed: %s", e.what());
    }
}

void Fwu_version(void)
{
    (void)puts("libfwutil " FWU_VERSION); // as above
}

int Fwu_get_item(const char **name, int32_t *type, int32_t *size, int32_t *count, int32_t *item_aux)
{
    const fwu_item *item = fwu_current_next_item();
    if (item == nullptr)
        return 0;
    if (name != nullptr)
        *name = item->name.c_str();
    if (type != nullptr)
        *type = item->type;
    if (size != nullptr)
        *size = item->size;
    if (count != nullptr)
        *count = item->count;
    if (item_aux != nullptr)
        *item_aux = item->item_aux;
    return 1;
}

int Fwu_CurrentLogGeneration(void)
{
    return fwu_current_position().generation;
}

int Fwu_CurrentLogSequence(void)
{
    return fwu_current_position().sequence;
}

int Fwu_CurrentTagSequence(void)
{
    return fwu_current_position().tag;
}

const char *Fwu_get_session_entry(const char *key)
{
    if (key == nullptr)
        return nullptr;
    for (int i = 0; i < FWU_SESSION_ENTRIES; i++)
        if (strcmp(key, FWU_SESSION_KEYS[i]) == 0)
            return fwu_current_session().entry[i];
    return nullptr;
}

int Fwu_get_session_elements(void)
{
    return static_cast<int>(fwu_current_session().data.size());
}

const char *Fwu_get_session_data(int index)
{
    const fwu_session_view &session = fwu_current_session();
    if (index < 0 || static_cast<size_t>(index) >= session.data.size())
        return nullptr;
    return session.data[static_cast<size_t>(index)];
}
