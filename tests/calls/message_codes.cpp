// The codes by what failed.
#include "tests/calls/message_codes.h"

#include "msgfile/tmf.h"
#include "msgfile/tmf_layout.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

using codes = std::set<int>;

static bool is_slot(const traced_call &call)
{
    return call.offset >= TMF_LOCK_AREA_OFFSET && call.offset < TMF_DATA_START;
}

static bool is_repair(const std::string &name)
{
    return name == "tmf_check" || name == "tmf_repair";
}

static bool is_read(const std::string &name)
{
    return name == "tmf_fread" || name == "tmf_freadx";
}

static bool is_write(const std::string &name)
{
    return name == "tmf_fwrite" || name == "tmf_fwrite_many";
}

static codes of_lock(const traced_call &call)
{
    const bool slot = is_slot(call);
    if (call.command == F_GETLK)
        return {TMF_ELOCK_TEST};
    if (call.lock_type == F_UNLCK)
        return slot ? codes{0}
                    : codes{TMF_EUNLOCK}; // a slot's at close: the lock goes with the file
    return {slot ? TMF_ELOCK_NOWAIT : TMF_ELOCK_WAIT};
}

// The slot of a dead user, or the own one at close, may as well not be had.
static codes of_slot(int64_t own_slot, const traced_call &call, int reader, int writer)
{
    if (own_slot == 0 || call.offset != own_slot)
        return {0};
    return {call.offset < TMF_LOCK_AREA_OFFSET + TMF_MAX_READERS * TMF_SLOT_SIZE ? reader : writer};
}

// A seek belongs to what comes behind it.
static codes of_seek(const std::string &name, const struck_call &struck, int64_t own_slot)
{
    const traced_call *next = struck.next();
    if (is_repair(name) && (next == nullptr || !next->is("fcntl")))
        return {0}; // which parts of a file are holes is not always to be known
    if (next == nullptr)
        return {0};
    if (next->is("fcntl"))
        return next->lock_type == F_UNLCK && is_slot(*next) ? codes{0} : codes{TMF_EHANDLE};
    if (next->offset == 0 && next->length <= TMF_COMMON_SIZE)
        return {TMF_ESEEK_COMMON};
    if (next->length == TMF_LOCK_AREA_SIZE && next->is("write"))
        return {TMF_ESEEK_LOCKS};
    if (is_slot(*next))
        return of_slot(own_slot, *next, TMF_ESEEK_READER, TMF_ESEEK_WRITER);
    return {TMF_ESEEK_DATA};
}

static codes of_write(const struck_call &struck, int64_t own_slot)
{
    const traced_call &call = struck.call();
    const bool half = struck.what.kind == BLOW_HALF;
    if (call.offset == 0) {
        // Behind the first bytes of a new file come the slots, all at once.
        bool makes_slots = false;
        for (const traced_call &other : struck.undisturbed.calls)
            makes_slots |= other.is("write") && other.length == TMF_LOCK_AREA_SIZE;
        bool first = makes_slots;
        for (size_t i = 0; i + 1 < struck.number; i++)
            first &= !struck.undisturbed.calls[i].is("write");
        if (first)
            return {half ? TMF_EINIT_WRITE_EOF : TMF_EINIT_WRITE};
        return {half ? TMF_EWRITE_COMMON_EOF : TMF_EWRITE_COMMON};
    }
    if (call.length == TMF_LOCK_AREA_SIZE && call.offset == TMF_LOCK_AREA_OFFSET)
        return {half ? 0 : TMF_EWRITE_LOCKS};
    if (is_slot(call))
        return half ? of_slot(own_slot, call, TMF_EWRITE_READER_EOF, TMF_EWRITE_WRITER_EOF)
                    : of_slot(own_slot, call, TMF_EWRITE_READER, TMF_EWRITE_WRITER);
    return {half ? TMF_EWRITE_DATA_EOF : TMF_EWRITE_DATA};
}

static codes of_read(const std::string &name, const struck_call &struck)
{
    const traced_call &call = struck.call();
    const bool half = struck.what.kind == BLOW_HALF;
    if (is_repair(name) && half) // read on, but for the first bytes
        return call.length == TMF_COMMON_SIZE ? codes{0, TMF_EREAD_COMMON_EOF} : codes{0};
    if (is_slot(call) && !is_repair(name))
        return {0};
    if (call.offset == 0 && call.length == TMF_COMMON_SIZE) {
        if (name == "tmf_fopen") // half of it has all that is looked at
            return half ? codes{0} : codes{TMF_EINIT_READ};
        return {half ? TMF_EREAD_COMMON_EOF : TMF_EREAD_COMMON};
    }
    if (half)
        return {0, TMF_EREAD_DATA_EOF}; // the record may be in the half
    if (name == "tmf_repair")
        return {TMF_EREAD_DATA, TMF_EOPEN}; // for a survey, or for the copy
    return {TMF_EREAD_DATA};
}

static codes of_network(const std::string &name, const struck_call &struck)
{
    const traced_call &call = struck.call();
    if (name == "tmf_fclose")
        return {0};
    if (is_write(name))
        return {TMF_ESEND};
    if (struck.what.kind == BLOW_HALF)
        return {0};
    if (call.is("poll") && struck.what.os_errno == EINTR)
        return {0, TMF_ETIMEOUT, TMF_ESIGNAL};
    if (call.is("fcntl"))
        return {TMF_ENONBLOCK};
    return {TMF_ERECEIVE};
}

// A repair's own: the copy aside.
static codes of_copy(const struck_call &struck)
{
    const traced_call &call = struck.call();
    const bool no_matter = call.is("unlink") || struck.what.kind == BLOW_HALF ||
                           (call.is("close") && call.file == ".");
    return {no_matter ? 0 : TMF_EOPEN};
}

static codes of_file(const std::string &name, const struck_call &struck, int64_t own_slot)
{
    const traced_call &call = struck.call();
    if (call.is("openat"))
        return {TMF_EOPEN};
    if (call.is("fcntl"))
        return of_lock(call);
    if (call.is("lseek"))
        return of_seek(name, struck, own_slot);
    if (call.is("write") || call.is("pwrite64"))
        return is_repair(name) && struck.what.kind == BLOW_HALF && call.offset != 0
                   ? codes{TMF_EWRITE_DATA}
                   : of_write(struck, own_slot);
    if (call.is("read") || call.is("pread64"))
        return of_read(name, struck);
    if (call.is("ftruncate"))
        return {TMF_ETRUNCATE};
    if (call.is("fdatasync") || call.is("fsync"))
        return {TMF_EWRITE_DATA};
    if (call.is("fstat") || call.is("newfstatat"))
        return {TMF_EHANDLE, TMF_EOPEN}; // for a survey, or for the copy
    return {0};                          // a close
}

std::set<int> right_codes(const std::string &name, const struck_call &struck, int64_t own_slot)
{
    const traced_call &call = struck.call();
    if (call.is("close") && !call.file.starts_with("aside"))
        return {0}; // nothing is left to be written
    if (call.is("socket") || call.is("poll") || call.file == "socket")
        return of_network(name, struck);
    if (call.file.starts_with("aside") || call.file == ".")
        return of_copy(struck);
    codes right = of_file(name, struck, own_slot);
    // Without the common area a read goes by what it knew last.
    for (const int code :
         {TMF_ELOCK_WAIT, TMF_EHANDLE, TMF_ESEEK_COMMON, TMF_EREAD_COMMON, TMF_EREAD_COMMON_EOF})
        if (is_read(name) && right.contains(code)) {
            right.insert({0, TMF_EINTERNAL});
            break;
        }
    return right;
}

std::string right_text(int code, const struck_call &struck)
{
    std::string text = tmf_strerror(code);
    const std::string part = "(system error)";
    const size_t at = text.find(part);
    if (at == std::string::npos)
        return text;
    const std::string call = struck.call().is("poll") ? "select" : struck.call().row->name;
    const int os_errno = struck.what.os_errno;
    return text.replace(at, part.size(),
                        code == TMF_EOPEN ? strerror(os_errno)
                                          : "#" + std::to_string(os_errno) + " on " + call + "()");
}
