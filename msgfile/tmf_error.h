// Error state of handles and of the last open, and the texts of the codes.
#ifndef MSGFILE_TMF_ERROR_H
#define MSGFILE_TMF_ERROR_H

#include "msgfile/tmf_handle.h"

// Store a code in the handle, or as the code of the last open for null.
void tmf_set_error(tmf_handle *h, int code);
// The same with the system error number behind it; returns code.
int tmf_os_error(tmf_handle *h, int code, int os_errno);

// Keeps "#errno on call" as the attached text of the handle's next message and
// returns code, which the caller stores.
int tmf_network_error(tmf_handle *h, int code, const char *call_name, int os_errno);

// Writes the code's text with the attached text in place of "%s" into buf, which
// holds TMF_ERRMSG_SIZE bytes.
void tmf_code_text(int code, const char *attached, char *buf);

#endif
