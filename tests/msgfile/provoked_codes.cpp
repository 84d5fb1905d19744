// Every call, with every system call in it failing once.
#include "tests/msgfile/provoked_codes.h"

#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <functional>

// ---- system calls

struct fault {
    call_kind kind;
    int os_errno; // 0: the call gives the answer
    int64_t answer;
    int times;
};

// Calls of the network fail until the end of the call: a wait would go on else.
static constexpr fault faults[] = {
    {CALL_OPEN, EACCES, 0, 1},    {CALL_LSEEK, EIO, 0, 1},     {CALL_LSEEK, 0, 8, 1},
    {CALL_READ, EIO, 0, 1},       {CALL_READ, 0, 0, 1},        {CALL_READ, 0, 5, 1},
    {CALL_WRITE, EIO, 0, 1},      {CALL_WRITE, 0, 0, 1},       {CALL_WRITE, 0, 3, 1},
    {CALL_PREAD, EIO, 0, 1},      {CALL_PREAD, 0, 0, 1},       {CALL_PREAD, 0, 5, 1},
    {CALL_PWRITE, EIO, 0, 1},     {CALL_PWRITE, 0, 0, 1},      {CALL_PWRITE, 0, 3, 1},
    {CALL_FTRUNCATE, EIO, 0, 1},  {CALL_LOCKF, ENOLCK, 0, 1},  {CALL_FCNTL, ENOLCK, 0, 1},
    {CALL_SOCKET, EMFILE, 0, -1}, {CALL_BIND, EACCES, 0, -1},  {CALL_BIND, EADDRINUSE, 0, -1},
    {CALL_SENDTO, EPERM, 0, -1},  {CALL_RECVFROM, EIO, 0, -1}, {CALL_POLL, EIO, 0, -1},
    {CALL_POLL, EINTR, 0, -1},    {CALL_MALLOC, ENOMEM, 0, 1}, {CALL_CALLOC, ENOMEM, 0, 1},
    {CALL_STRDUP, ENOMEM, 0, 1},
};

// More than any call makes of one kind.
static constexpr int most_calls = 14;

// No fault.  Waits end at once, ports are free and wake-ups go nowhere: other tests
// wait on the same ports.
static void quiet()
{
    for (int kind = 0; kind < CALL_KINDS; kind++)
        answer_call(static_cast<call_kind>(kind), 0, 0, 0);
    answer_call(CALL_POLL, 0, 0, -1);
    answer_call(CALL_BIND, 0, 0, -1);
    answer_call(CALL_SENDTO, 12, 0, -1);
    forget_calls();
}

static void make_fail(const fault &f, int after)
{
    if (f.os_errno != 0)
        fail_call(f.kind, f.os_errno, after, f.times);
    else
        answer_call(f.kind, f.answer, after, f.times);
}

// ---- files

// A record, a dead reader that waits and a dead writer; when the record goes the file
// is long enough to be cut.
static std::string busy_file()
{
    std::string file = golden_bytes("message_file_small.hex");
    put_number<int32_t>(file, 60, 70000);
    put_number<int16_t>(file, 68, 1);
    file[126] = 2; // reader slot 1
    file[124] = 2;
    file[128] = 3; // writer slots 0 and 1
    put_number<int16_t>(file, 70, 2);
    put_number<int32_t>(file, 16, 1);
    put_number<int32_t>(file, 44, 4368);
    return file;
}

static std::string file_without_records()
{
    std::string file = busy_file();
    put_number<int32_t>(file, 16, 0);
    put_number<int32_t>(file, 44, 4352);
    return file;
}

struct number_put {
    size_t at;
    size_t width;
    int32_t value;
};

// What a hand or another user may leave in a file.
static constexpr number_put damages[] = {
    {4, 2, 0x1234}, // the magic
    {0, 2, 0x1234}, // the byte order mark
    {74, 2, 3},     // the version
    {28, 4, 8},     // the data area's beginning
    {16, 4, 9},     // the number of records
    {36, 4, -1},    // the oldest record
    {36, 4, 300},   //
    {44, 4, -1},    // the end
    {44, 4, 300},   //
    {4352, 2, 0},   // a record's length
    {76, 2, 0},     // the slots
    {52, 4, -1},    // the slots
    {68, 2, 100},   // the number of readers
    {70, 2, 1100},  // of writers
    {64, 2, 0},     // slots
    {66, 2, 0},     //
};

static std::string damaged(std::string file, const number_put &d)
{
    if (d.width == 2)
        put_number(file, d.at, static_cast<uint16_t>(d.value));
    else
        put_number(file, d.at, d.value);
    return file;
}

// Makes the file of an open handle these bytes, by the handle's descriptor.
static void change_file(const tmf_handle *h, const std::string &bytes)
{
    const auto size = static_cast<off_t>(bytes.size());
    if (ftruncate(h->fd, size) != 0 || pwrite(h->fd, bytes.data(), bytes.size(), 0) != size)
        throw std::runtime_error("cannot change the file");
}

// ---- calls

// What is done to the world before the call: system calls to fail, or another file.
struct trouble {
    const fault *failing = nullptr;
    int after = 0;
    const std::string *file = nullptr; // null: the sound one
};

struct call_under_test {
    const char *name;
    std::function<int(const std::string &path, const trouble &)> run;
};

static void begin(const trouble &t)
{
    if (t.failing != nullptr)
        make_fail(*t.failing, t.after);
}

// Opens: for the mode and the file that is there before.
static call_under_test open_call(int mode, const std::string &before)
{
    return {"tmf_fopen", [=](const std::string &path, const trouble &t) {
                unlink(path.c_str());
                write_file(path, t.file != nullptr ? *t.file : before);
                begin(t);
                tmf_handle *h = tmf_fopen(path.c_str(), mode);
                quiet();
                if (h == nullptr)
                    return tmf_geterrno(nullptr);
                tmf_fclose(h);
                return 0;
            }};
}

// A call on a handle of a mode, which has written or read a record (proven) or not.
static call_under_test handle_call(const char *name, int mode, bool proven, bool records,
                                   const std::function<int(tmf_handle *&)> &call)
{
    return {name, [=](const std::string &path, const trouble &t) {
                write_file(path, busy_file());
                tmf_handle *h = tmf_fopen(path.c_str(), mode);
                if (h == nullptr)
                    throw std::runtime_error("cannot open a sound file");
                char buf[8];
                if (proven && (mode == 0 ? tmf_fwrite(h, "x", 1) : tmf_fread(h, buf, 8, 1)) < 0)
                    throw std::runtime_error("the first record fails");
                std::string file = t.file != nullptr ? *t.file
                                   : records         ? busy_file()
                                                     : file_without_records();
                if (!records && file.size() > 130)
                    put_number<int32_t>(file, 16, 0);
                if (mode == 0 && file.size() > 130)
                    file[128] = static_cast<char>(file[128] | 4); // the handle's own slot
                change_file(h, file);
                begin(t);
                const int code = call(h);
                quiet();
                if (h != nullptr)
                    tmf_fclose(h);
                return code;
            }};
}

static call_under_test repair_call(bool repair)
{
    return {repair ? "tmf_repair" : "tmf_check", [=](const std::string &path, const trouble &t) {
                write_file(path, t.file != nullptr ? *t.file : damaged(busy_file(), damages[4]));
                const std::string aside = path + ".aside";
                tmf_check_result result;
                begin(t);
                const int code = repair ? tmf_repair(path.c_str(), 0, aside.c_str(), &result)
                                        : tmf_check(path.c_str(), &result);
                quiet();
                return code;
            }};
}

static int close_handle(tmf_handle *&h)
{
    tmf_handle *const closed = h;
    h = nullptr;
    return tmf_fclose(closed);
}

static int write_long(tmf_handle *&h)
{
    static const char data[3000] = {};
    return tmf_fwrite(h, data, sizeof(data));
}

static int read_long(tmf_handle *&h)
{
    static char data[3000];
    return tmf_fread(h, data, sizeof(data), TMF_READ_LIMIT | TMF_READ_SIGNAL);
}

static int write_batch(tmf_handle *&h)
{
    static const char data[3000] = {};
    const tmf_item items[] = {{data, sizeof(data)}, {data, 1}};
    return tmf_fwrite_many(h, items, 2);
}

static int read_batch(tmf_handle *&h)
{
    static char data[3000];
    tmf_item items[2];
    return tmf_fread_many(h, items, 2, data, sizeof(data), TMF_READ_LIMIT | TMF_READ_SIGNAL);
}

static int remove_one(tmf_handle *&h)
{
    return tmf_fremove(h, 1);
}

static int read_by_time(tmf_handle *&h)
{
    static char data[3000];
    return tmf_freadx(h, data, sizeof(data), 0, 1);
}

static int ask(tmf_handle *&h)
{
    int32_t records;
    return tmf_getinfo(h, TMF_INFO_RECORDS, &records, 0);
}

static std::vector<call_under_test> calls_under_test()
{
    std::vector<call_under_test> calls = {repair_call(false), repair_call(true)};
    for (const int mode : {0, 1, 2, 3, 7, 8}) {
        calls.push_back(open_call(mode, ""));
        calls.push_back(open_call(mode, busy_file()));
    }
    for (const bool proven : {false, true}) {
        for (const int mode : {0, 1}) {
            calls.push_back(handle_call("tmf_fclose", mode, proven, true, close_handle));
            calls.push_back(handle_call("tmf_getinfo", mode, proven, true, ask));
        }
        calls.push_back(handle_call("tmf_fwrite", 0, proven, true, write_long));
        calls.push_back(handle_call("tmf_fwrite_many", 0, proven, true, write_batch));
        for (const bool records : {false, true}) {
            calls.push_back(handle_call("tmf_fread_many", 1, proven, records, read_batch));
            calls.push_back(handle_call("tmf_fremove", 3, proven, records, remove_one));
            calls.push_back(handle_call("tmf_fread", 1, proven, records, read_long));
            calls.push_back(handle_call("tmf_freadx", 1, proven, records, read_by_time));
        }
    }
    return calls;
}

// ---- what needs a case of its own

static void wrong_arguments(const std::string &path, std::map<std::string, std::set<int>> &codes)
{
    write_file(path, busy_file());
    (void)tmf_fopen("", 0);
    codes["tmf_fopen"].insert(tmf_geterrno(nullptr));
    (void)tmf_fopen(path.c_str(), TMF_MODE_COPY);
    codes["tmf_fopen"].insert(tmf_geterrno(nullptr));
    tmf_check_result result;
    codes["tmf_check"].insert(tmf_check("", &result));
    codes["tmf_repair"].insert(tmf_repair("", 0, nullptr, &result));
    tmf_handle *writer = tmf_fopen(path.c_str(), 0);
    codes["tmf_fwrite"].insert(tmf_fwrite(writer, "", 0));
    codes["tmf_fread"].insert(tmf_fread(writer, nullptr, 0, 0));
    codes["tmf_freadx"].insert(tmf_freadx(writer, nullptr, 0, 0, 0));
    codes["tmf_fread_many"].insert(tmf_fread_many(writer, nullptr, 0, nullptr, 0, 0));
    codes["tmf_fremove"].insert(tmf_fremove(writer, 0));
    codes["tmf_fwrite_many"].insert(tmf_fwrite_many(writer, nullptr, 1));
    codes["tmf_getinfo"].insert(tmf_getinfo(writer, -1));
    tmf_fclose(writer);
    tmf_handle *reader = tmf_fopen(path.c_str(), TMF_MODE_READ);
    codes["tmf_fwrite"].insert(tmf_fwrite(reader, "x", 1));
    codes["tmf_fread"].insert(tmf_fread(reader, nullptr, -1, 0));
    codes["tmf_freadx"].insert(tmf_freadx(reader, nullptr, -1, 0, 0));
    codes["tmf_fwrite_many"].insert(tmf_fwrite_many(reader, nullptr, 0));
    codes["tmf_fread_many"].insert(tmf_fread_many(reader, nullptr, 1, nullptr, 0, 0));
    codes["tmf_fremove"].insert(tmf_fremove(reader, 0));
    tmf_fclose(reader);
    for (const int mode : {3, 7}) {
        reader = tmf_fopen(path.c_str(), mode);
        codes["tmf_fremove"].insert(tmf_fremove(reader, -1));
        tmf_fclose(reader);
    }
}

static void other_users(const std::string &path, std::map<std::string, std::set<int>> &codes)
{
    write_file(path, "");
    for (const int mode : {0, 1}) {
        for (const int exclusive : {0, TMF_MODE_EXCLUSIVE}) {
            const other_user there(path, mode | exclusive);
            codes["tmf_fopen"].insert(open_elsewhere(path, mode | TMF_MODE_EXCLUSIVE));
        }
        unlink(path.c_str());
        write_file(path, "");
        const lock_holder slots(path, 256, 4096); // of nobody who is registered
        codes["tmf_fopen"].insert(open_elsewhere(path, mode));
    }
}

// The calls for many records want memory for the records.
static void no_memory(const std::string &path, std::map<std::string, std::set<int>> &codes)
{
    write_file(path, "");
    const std::string data(5000, 'd');
    tmf_handle *writer = tmf_fopen(path.c_str(), 0);
    if (tmf_fwrite(writer, data.data(), 5000) + tmf_fwrite(writer, data.data(), 5000) != 0)
        throw std::runtime_error("cannot write two records");
    tmf_fclose(writer);
    tmf_handle *reader = tmf_fopen(path.c_str(), TMF_MODE_READ | TMF_MODE_EXCLUSIVE);
    std::string buf(5000, '\0');
    tmf_item item;
    fail_call(CALL_MALLOC, ENOMEM, 0, -1);
    codes["tmf_fread_many"].insert(tmf_fread_many(reader, &item, 1, buf.data(), 5000, 0));
    codes["tmf_fremove"].insert(tmf_fremove(reader, 2));
    quiet();
    tmf_fclose(reader);
}

std::map<std::string, std::set<int>> provoked_codes(const std::string &path)
{
    const system_calls_guard guard;
    std::map<std::string, std::set<int>> codes;
    std::vector<std::string> files = {"", busy_file().substr(0, 100)};
    std::string turned = busy_file();
    std::swap(turned[0], turned[1]);
    files.push_back(turned);
    for (const number_put &d : damages)
        files.push_back(damaged(busy_file(), d));
    quiet();
    for (const call_under_test &call : calls_under_test()) {
        const auto note = [&](const trouble &t) {
            const int result = call.run(path, t);
            if (result < 0 || (result == 1 && call.name == std::string("tmf_fopen")))
                codes[call.name].insert(result);
        };
        for (const std::string &file : files)
            note({.file = &file});
        for (const fault &f : faults) {
            for (int after = 0; after < (f.times < 0 ? 1 : most_calls); after++)
                note({.failing = &f, .after = after});
        }
    }
    wrong_arguments(path, codes);
    no_memory(path, codes);
    other_users(path, codes);
    return codes;
}
