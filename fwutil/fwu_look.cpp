// A weak reference like those of fwu_hook.cpp.  By itself, since every report of an error
// comes through here, and the others report errors.
#include "fwutil/fwu_look.h"

#include "fwutil/fwutil.h"

#pragma weak Fwu_hook_look

void fwu_look(int what, const char *text)
{
    if (Fwu_hook_look != nullptr)
        Fwu_hook_look(what, text);
}
