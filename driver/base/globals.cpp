// The run's global state.
#include "driver/base/globals.h"

uint32_t g_flags;
int32_t g_nlogrecs;
uint32_t g_loglevel = LOG_NOTICE;
char g_logfname[LOG_FNAME_SIZE];
capinfo *g_ci;
int32_t g_needsetinfo;

void init_globals()
{
    g_flags = 0;
    g_nlogrecs = 0;
    g_loglevel = LOG_NOTICE;
    g_logfname[0] = '\0';
    g_ci = nullptr;
    g_needsetinfo = 0;
}
