// Whether the log can hold what it is handed.  0, or -1 (reported) with what is wrong.
#ifndef FWUTIL_FWU_WRITER_CHECK_H
#define FWUTIL_FWU_WRITER_CHECK_H

#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_items.h"
#include "fwutil/fwu_session.h"

#include <string>

constexpr size_t FWU_IMAGE_MAX = FWU_ENTRY_MAX / 2 - 64; // an update has two, behind two names

int fwu_check_session(const fwu_session &session);

// What is wrong with a layout's names and items, and with the source that it has; empty: nothing.
// Whoever makes layouts from what others say asks first.
std::string fwu_items_problem(const fwu_layout &layout);
std::string fwu_source_problem(const fwu_layout &layout);

// The source of the layout, too, if it has one.
int fwu_check_layout(const fwu_layout &layout);

// A change of a dataset with this layout.
int fwu_check_change(const fwu_layout &layout, const fwu_change &change);

int fwu_check_mark(const fwu_mark &mark);

#endif
