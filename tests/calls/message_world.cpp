// Making files, and looking at them as any other user does.
#include "tests/calls/message_world.h"

#include "msgfile/tmf_handle.h"
#include "tests/msgfile/message_file.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

std::string data_of(int length)
{
    std::string data(static_cast<size_t>(length), '\0');
    for (size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>(static_cast<size_t>(length) + i * 5);
    return data;
}

int append_code(tmf_handle *h, int length)
{
    return tmf_fwrite(h, data_of(length).data(), length);
}

bool append(tmf_handle *h, int length)
{
    return append_code(h, length) == 0;
}

static bool is_sound(const std::string &buffer, int length)
{
    return length < 0 || buffer.compare(0, static_cast<size_t>(length), data_of(length)) == 0;
}

constexpr int ROOM = 4000; // longer than any record here

int take(tmf_handle *h, int flags, bool *sound)
{
    std::string buffer(ROOM, '\0');
    const int length = tmf_fread(h, buffer.data(), ROOM, flags);
    if (sound != nullptr)
        *sound = is_sound(buffer, length);
    return length;
}

int append_many(tmf_handle *h, const lengths &records)
{
    std::vector<std::string> data;
    for (const int length : records)
        data.push_back(data_of(length));
    std::vector<tmf_item> items;
    for (const std::string &one : data)
        items.push_back({one.data(), static_cast<int>(one.size())});
    return tmf_fwrite_many(h, items.data(), static_cast<int>(items.size()));
}

int take_many(tmf_handle *h, int count, int flags, bool *sound)
{
    std::string buffer(ROOM, '\0');
    std::vector<tmf_item> items(static_cast<size_t>(count));
    const int taken = tmf_fread_many(h, items.data(), count, buffer.data(), ROOM, flags);
    *sound = true;
    for (int i = 0; i < taken; i++) {
        const tmf_item &item = items[static_cast<size_t>(i)];
        *sound = *sound &&
                 is_sound({static_cast<const char *>(item.data), static_cast<size_t>(item.length)},
                          item.length);
    }
    return taken;
}

int take_by_time(tmf_handle *h, bool *sound)
{
    std::string buffer(ROOM, '\0');
    const int length = tmf_freadx(h, buffer.data(), ROOM, 0, 1);
    *sound = is_sound(buffer, length);
    return length;
}

// ---- files

// A port of the loopback address that nobody waits on: other tests have readers, too.
static uint16_t free_port()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in here = {};
    here.sin_family = AF_INET;
    socklen_t length = sizeof(here);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&here), length) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&here), &length) != 0)
        throw std::runtime_error("no free port");
    close(fd);
    return here.sin_port; // in the file's order, too
}

static std::string made(const std::string &path, const lengths &records)
{
    tmf_handle *h = tmf_fopen(path.c_str(), 0);
    for (const int length : records)
        if (h == nullptr || !append(h, length))
            throw std::runtime_error("cannot make a message file");
    if (tmf_fclose(h) != 0)
        throw std::runtime_error("cannot make a message file");
    return read_file(path);
}

// Slot 1 of the readers and slot 2 of the writers are those of processes that are gone.
static void enter_the_dead(std::string &file)
{
    put_number<int16_t>(file, 68, 1);
    put_number<int16_t>(file, 70, 1);
    file[124] = file[126] = 2;
    file[128] = 4;
    put_number<int32_t>(file, 256 + 4, 4711);
    put_number<int32_t>(file, 256 + 4 * (16 + 2), 4712);
}

static void turn(std::string &file)
{
    for (const long at : {8, 12, 16, 24, 28, 32, 36, 40, 44, 48, 52, 56, 60})
        std::reverse(file.begin() + at, file.begin() + at + 4);
    for (const long at : {0, 2, 64, 66, 68, 70, 72, 74, 76, 78})
        std::reverse(file.begin() + at, file.begin() + at + 2);
}

void message_world::renew(file_kind kind) const
{
    unlink(path.c_str());
    if (kind == NO_FILE)
        return;
    const bool one = kind == ONE_RECORD || kind == LONG_FILE;
    std::string file = made(path, kind == EMPTY_FILE ? lengths{}
                                  : one              ? lengths{10}
                                                     : lengths{10, 300, 20});
    static const uint16_t port = free_port();
    put_number<uint16_t>(file, 92, port); // of reader slot 0
    if (kind == LONG_FILE) {
        put_number<int32_t>(file, 60, 70000);
        file.resize(70000);
    }
    if (kind == DEAD_USERS)
        enter_the_dead(file);
    if (kind == TURNED_FILE)
        turn(file);
    write_file(path, file);
}

void message_world::enter_waiting_reader(const tmf_handle *h) const
{
    constexpr int slot = 5;
    const auto put = [&](const void *bytes, size_t n, off_t at) {
        if (pwrite(h->fd, bytes, n, at) != static_cast<ssize_t>(n))
            throw std::runtime_error("cannot write into the file");
    };
    int16_t readers = 0;
    unsigned char map = 0;
    if (pread(h->fd, &readers, 2, 68) != 2 || pread(h->fd, &map, 1, 126) != 1)
        throw std::runtime_error("cannot read the file");
    readers = static_cast<int16_t>(readers + 1);
    map |= 1 << slot;
    const unsigned char waits = 1 << slot;
    const unsigned char port[2] = {0, 9};
    put(&readers, 2, 68);
    put(&map, 1, 126);
    put(&waits, 1, 124);
    put(port, 2, 92 + 2 * slot);
}

int64_t message_world::slot_of(int mode, bool beside) const
{
    const bool reads = (mode & TMF_MODE_READ) != 0;
    return 256 + 4 * (reads ? 0 : 16 + (beside ? 1 : 0));
}

// ---- other users

bool message_world::append_elsewhere(int length) const
{
    other_process user({[&] {
        tmf_handle *h = tmf_fopen(path.c_str(), 0);
        const bool appended = append(h, length);
        return tmf_fclose(h) == 0 && appended ? 1 : 0;
    }});
    return user.run() == 1;
}

message_facts message_world::append_as_next_user(int length) const
{
    message_facts facts;
    tmf_handle *h = tmf_fopen(path.c_str(), 0);
    if (h == nullptr) {
        facts.code = tmf_geterrno(nullptr);
        return facts;
    }
    facts.code =
        tmf_getinfo(h, TMF_INFO_READERS, &facts.readers, TMF_INFO_WRITERS, &facts.writers, 0);
    if (facts.code == 0)
        facts.code = append_code(h, length);
    const int close_code = tmf_fclose(h);
    if (facts.code == 0)
        facts.code = close_code;
    return facts;
}

lengths message_world::all_records() const
{
    lengths all;
    tmf_handle *h = tmf_fopen(path.c_str(), TMF_MODE_READ);
    if (h == nullptr)
        return {tmf_geterrno(nullptr)};
    int32_t records = 0;
    (void)tmf_getinfo(h, TMF_INFO_RECORDS, &records, 0); // none: none are read
    for (; records > 0; records--) {
        bool sound = false;
        const int length = take(h, 0, &sound);
        all.push_back(sound ? length : -1);
    }
    (void)tmf_fclose(h); // faults() looks at what it leaves
    return all;
}

int message_world::faults() const
{
    tmf_check_result result;
    const int code = tmf_check(path.c_str(), &result);
    return code != 0 ? code : result.found | (result.records != 0 ? 0x1000 : 0);
}
