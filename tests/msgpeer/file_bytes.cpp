// Message files byte by byte, and the system's table of UDP sockets.
#include "tests/msgpeer/file_bytes.h"

#include <arpa/inet.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

static void put(std::string &file, size_t at, unsigned value, size_t width, bool big_endian)
{
    for (size_t i = 0; i < width; i++) {
        const size_t place = big_endian ? at + width - 1 - i : at + i;
        file[place] = static_cast<char>(value >> (8 * i));
    }
}

std::string new_message_file(bool big_endian, int first_port)
{
    struct field {
        size_t at;
        size_t width;
        unsigned value;
    };
    static const field fields[] = {
        {AT_MARK, 2, 0xFEFF},       {8, 4, 256},  {12, 4, 4096}, {28, 4, 4352},
        {AT_READ_OFFSET, 4, 4352},  {52, 4, 256}, {64, 2, 16},   {66, 2, 1008},
        {AT_WRITE_OFFSET, 4, 4352}, {74, 2, 2},   {76, 2, 4},    {78, 2, 4},
    };
    std::string file(AT_DATA, '\0');
    for (const field &f : fields)
        put(file, f.at, f.value, f.width, big_endian);
    file.replace(4, 4, "TM01");
    file.replace(AT_SIGNAL_ADDR, 4, "\x7F\x00\x00\x01", 4);
    file.replace(AT_STAMP, 8, "00000000");
    for (size_t i = 0; i < 16; i++)
        put(file, AT_SIGNAL_PORTS + 2 * i, static_cast<unsigned>(first_port) + unsigned(i), 2,
            true);
    return file;
}

static unsigned byte_at(const std::string &file, size_t at)
{
    return static_cast<unsigned char>(file.at(at));
}

uint16_t be16_at(const std::string &file, size_t at)
{
    return static_cast<uint16_t>(byte_at(file, at) << 8 | byte_at(file, at + 1));
}

static bool is_big(const std::string &file)
{
    return be16_at(file, AT_MARK) == 0xFEFF;
}

int host16_at(const std::string &file, size_t at)
{
    const unsigned be = be16_at(file, at);
    return static_cast<int16_t>(is_big(file) ? be : (be & 0xFF) << 8 | be >> 8);
}

int host32_at(const std::string &file, size_t at)
{
    uint32_t value = 0;
    for (size_t i = 0; i < 4; i++)
        value = value << 8 | byte_at(file, is_big(file) ? at + i : at + 3 - i);
    return static_cast<int32_t>(value);
}

bool is_waiting(const std::string &file, int reader_slot)
{
    const auto slot = static_cast<size_t>(reader_slot);
    return (byte_at(file, AT_WAIT_LIST + slot / 8) >> (slot % 8) & 1) != 0;
}

bool is_bound(int port)
{
    // "  sl  local_address ..." and then "  12: 0100007F:D000 ..." with the port
    // in hexadecimal.
    std::ifstream table("/proc/net/udp");
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string number;
        std::string local;
        words >> number >> local;
        const size_t colon = local.find(':');
        if (colon != std::string::npos && std::stoi(local.substr(colon + 1), nullptr, 16) == port)
            return true;
    }
    return false;
}

static bool is_free(int port)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool free = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return free;
}

int own_ports()
{
    constexpr int FIRST = 10000;
    constexpr int BLOCKS = 1400;
    const int own = getpid() % BLOCKS;
    for (int block = own; block < own + BLOCKS; block++) {
        const int first = FIRST + block % BLOCKS * 16;
        int port = first;
        while (port < first + 16 && is_free(port))
            port++;
        if (port == first + 16)
            return first;
    }
    throw std::runtime_error("no free UDP ports");
}
