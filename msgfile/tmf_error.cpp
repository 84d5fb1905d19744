// The code table, the error state and the texts made of both.
#include "msgfile/tmf_error.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

struct tmf_code_row {
    int code;
    std::string_view text;
};

// clang-format off
static constexpr tmf_code_row code_table[] = {
    {TMF_ESIGNAL,            "Signal received while reading message file."},
    {TMF_EMPE_ACCESS,        "MPE error TMF_ENOACCESS."},
    {TMF_EMPE_NOTMSG,        "MPE error TMF_ENOTMPEMSG."},
    {TMF_EMPE_WRITE_EOF,     "MPE error TMF_EWRITEEOF."},
    {TMF_EMPE_CONTROL_WAIT,  "MPE error TMF_EFCONTROL_WAIT."},
    {TMF_EMPE_CONTROL_LIMIT, "MPE error TMF_EFCONTROL_TO."},
    {TMF_EMPE_CONTROL_NDR,   "MPE error TMF_EFCONTROL_NDR."},
    {TMF_EMPE_WRITE,         "MPE error TMF_EWRITEERR."},
    {TMF_EMPE_READ,          "MPE error TMF_EFREADERR."},
    {TMF_EMPE_READ_EOF,      "MPE error TMF_EFREADEOF."},
    {TMF_EMPE_INFO,          "MPE error TMF_EFFILEINFO."},
    {TMF_EMPE_CLOSE,         "MPE error TMF_EFCLOSE."},
    {TMF_EINTERRUPT,         "Internal interrupt on read."},
    {TMF_ENONAME,            "No file name specified on file open."},
    {TMF_ETIMEOUT,           "Timeout on read of message file."},
    {TMF_EPLATFORM,          "Tamberlin message files not supported on MPE."},
    {TMF_ECOPYMODE,          "Must specify exclusive read access to open in copy mode."},
    {TMF_ETRUNCATE,          "Error truncating file."},
    {TMF_EPORTBUSY,          "Error waiting: UDP port already in use."},
    {TMF_EWRITER_PRESENT,    "Exclusively write access requested for file already open."},
    {TMF_EREADER_PRESENT,    "Exclusively read access requested for file already open."},
    {TMF_EWRITER_EXCLUSIVE,  "File already opened exclusively for write access."},
    {TMF_EREADER_EXCLUSIVE,  "File already opened exclusively for read access."},
    {TMF_EINFO,              "Invalid info requested."},
    {TMF_ECOMMIT,            "Error on file commit."},
    {TMF_EREAD_WRITER_EOF,   "EOF reading writer area."},
    {TMF_EREAD_WRITER,       "Error reading writer area."},
    {TMF_EREAD_READER_EOF,   "EOF reading reader area."},
    {TMF_EREAD_READER,       "Error reading reader area."},
    {TMF_EBADSIGNAL,         "Bad write signal received."},
    {TMF_ENONBLOCK,          "Error %s setting non-blocking socket."},
    {TMF_ERECEIVE,           "Error %s receiving udp data."},
    {TMF_ESEND,              "Error %s sending udp data."},
    {TMF_ENETSTOP,           "Error stopping network."},
    {TMF_ENETSTART,          "Error starting network."},
    {TMF_EWRITE_WRITER_EOF,  "EOF writing writer data."},
    {TMF_EWRITE_WRITER,      "Error writing writer data."},
    {TMF_ESEEK_WRITER,       "EOF seeking writer area."},
    {TMF_EWRITER_LOCKED,     "Writer area already locked."},
    {TMF_EWRITE_READER_EOF,  "EOF writing reader data."},
    {TMF_EWRITE_READER,      "Error writing reader data."},
    {TMF_ESEEK_READER,       "EOF seeking reader area."},
    {TMF_EREADER_LOCKED,     "Reader area already locked."},
    {TMF_EUNLOCK,            "Error applying unlock."},
    {TMF_ELOCK_TEST,         "Error applying test lock."},
    {TMF_ELOCK_NOWAIT,       "Error applying nowait lock."},
    {TMF_ELOCK_WAIT,         "Error applying wait lock."},
    {TMF_EHANDLE,            "Internal error: Bad handle."},
    {TMF_EINTERNAL,          "Internal error."},
    {TMF_EMAXREADERS,        "Maximum number of readers exceeded."},
    {TMF_EMAXWRITERS,        "Maximum number of writers exceeded."},
    {TMF_EWRITE_ACCESS,      "Attempt to read from a file opened with write access."},
    {TMF_EREAD_ACCESS,       "Attempt to write to a file opened with read access."},
    {TMF_EREAD_DATA_EOF,     "EOF reading data."},
    {TMF_EREAD_DATA,         "Error reading data."},
    {TMF_EWRITE_DATA_EOF,    "EOF writing data."},
    {TMF_EWRITE_DATA,        "Error writing data."},
    {TMF_ESEEK_DATA_EOF,     "EOF seeking data area."},
    {TMF_ESEEK_DATA,         "Error seeking data area."},
    {TMF_EWRITE_COMMON_EOF,  "EOF writing common area."},
    {TMF_EWRITE_COMMON,      "Error writing common area."},
    {TMF_EREAD_COMMON_EOF,   "EOF reading common area."},
    {TMF_EREAD_COMMON,       "Error reading common area."},
    {TMF_ESEEK_COMMON_EOF,   "EOF seeking common area."},
    {TMF_ESEEK_COMMON,       "Error seeking common area."},
    {TMF_EBUFFER_SIZE,       "Invalid buffer size."},
    {TMF_ERECORD_SIZE,       "Invalid record size."},
    {TMF_EFORMAT,            "Records are in an unsupported format."},
    {TMF_ESEEK_LOCKS_EOF,    "EOF seeking lock area."},
    {TMF_ESEEK_LOCKS,        "Error seeking lock area."},
    {TMF_EWRITE_LOCKS_EOF,   "EOF writing lock area."},
    {TMF_EWRITE_LOCKS,       "Error writing lock area."},
    {TMF_EINCOMPATIBLE,      "Message file created on an incompatible system."},
    {TMF_ENOTMSG,            "File is not a message file."},
    {TMF_EINIT_WRITE_EOF,    "EOF initially writing common area."},
    {TMF_EINIT_WRITE,        "Error initially writing common area."},
    {TMF_EINIT_READ,         "EOF initially reading common area."},
    {TMF_EOPEN,              "Error opening file: %s"},
    {TMF_EUNUSED_1,          "TMF_UNUSED_1"},
    // Kept: two codes share one text.
    {TMF_EPERMISSION_1,      "Operation not permitted using write access mode."},
    {TMF_EPERMISSION_2,      "Operation not permitted using write access mode."},
    {TMF_EDELETE,            "Error deleting record from message file."},
};
// clang-format on

static constexpr int first_code = TMF_ESIGNAL;
static constexpr int last_code = TMF_EDELETE;
static constexpr std::string_view attached_mark = "%s";

// Codes without a gap, so that a code finds its row; four texts with a place for
// the attached text; all of them within the caller's buffer.
static constexpr bool table_is_sound()
{
    int code = first_code;
    int with_mark = 0;
    for (const tmf_code_row &row : code_table) {
        if (row.code != code++)
            return false;
        if (row.text.size() + TMF_ATTACHED_TEXT >= TMF_ERRMSG_SIZE)
            return false;
        with_mark += row.text.find(attached_mark) != std::string_view::npos ? 1 : 0;
    }
    return code == last_code + 1 && with_mark == 4;
}
static_assert(table_is_sound());

// What tmf_strerror gives where the table's text has a place for the system's part, or
// has none.
static constexpr tmf_code_row fixed_texts[] = {
    {TMF_ENONBLOCK, "Error (system error) setting non-blocking socket."},
    {TMF_ERECEIVE, "Error (system error) receiving udp data."},
    {TMF_ESEND, "Error (system error) sending udp data."},
    {TMF_EOPEN, "Error opening file: (system error)"},
    {1, "Message file error #1"}, // of tmf_fopen
};

static int open_error;
static int open_os_errno;

void tmf_set_error(tmf_handle *h, int code)
{
    (h != nullptr ? h->error : open_error) = code;
}

int tmf_os_error(tmf_handle *h, int code, int os_errno)
{
    tmf_set_error(h, code);
    (h != nullptr ? h->os_errno : open_os_errno) = os_errno;
    return code;
}

int tmf_network_error(tmf_handle *h, int code, const char *call_name, int os_errno)
{
    (void)snprintf(h->net_error_text, sizeof(h->net_error_text), "#%d on %s", os_errno, call_name);
    return code;
}

static char *append(char *at, std::string_view text)
{
    return std::copy(text.begin(), text.end(), at);
}

void tmf_code_text(int code, const char *attached, char *buf)
{
    if (code < first_code || code > last_code) {
        (void)snprintf(buf, TMF_ERRMSG_SIZE, "Message file error #%d", code);
        return;
    }
    std::string_view text = code_table[code - first_code].text;
    const size_t mark = text.find(attached_mark);
    if (mark != std::string_view::npos) {
        buf = append(buf, {text.data(), mark});
        buf = append(buf, {attached, strnlen(attached, TMF_ATTACHED_TEXT)});
        const size_t rest = mark + attached_mark.size();
        text = {text.data() + rest, text.size() - rest};
    }
    *append(buf, text) = '\0';
}

const char *tmf_strerror(int code)
{
    for (const tmf_code_row &row : fixed_texts) {
        if (row.code == code)
            return row.text.data();
    }
    // The views are of whole literals, which end with a NUL.
    const bool known = code >= first_code && code <= last_code;
    return known ? code_table[code - first_code].text.data() : "Message file error";
}

int tmf_geterrno(const tmf_handle *h)
{
    return h != nullptr ? h->error : open_error;
}

char *tmf_geterrmsg(tmf_handle *h, char *buf)
{
    if (buf == nullptr)
        return nullptr;
    const char *attached = "";
    int *os_errno = h != nullptr ? &h->os_errno : &open_os_errno;
    if (h != nullptr && h->net_error_text[0] != '\0') {
        attached = h->net_error_text;
    } else if (*os_errno != 0) {
        attached = strerror(*os_errno);
        *os_errno = 0;
    }
    tmf_code_text(tmf_geterrno(h), attached, buf);
    if (h != nullptr)
        h->net_error_text[0] = '\0';
    return buf;
}

void tmf_clearerr(tmf_handle *h)
{
    if (h == nullptr)
        return;
    h->error = 0;
    free(h->aux_buffer);
    h->aux_buffer = nullptr;
}
