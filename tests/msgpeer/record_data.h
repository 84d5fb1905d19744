// Data that tells which writer wrote it and as which record, of any length.
#ifndef TESTS_MSGPEER_RECORD_DATA_H
#define TESTS_MSGPEER_RECORD_DATA_H

#include <string>

// "TAG-NUMBER-" and bytes counting up from there, cut or filled up to size.
inline std::string record_data(const std::string &tag, int number, size_t size)
{
    std::string data = tag + "-" + std::to_string(number) + "-";
    data.resize(size < data.size() ? size : data.size());
    while (data.size() < size)
        data += static_cast<char>(static_cast<unsigned>(number) + data.size());
    return data;
}

inline std::string hex_of(const std::string &data)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const char c : data) {
        text += digits[static_cast<unsigned char>(c) >> 4];
        text += digits[c & 15];
    }
    return text;
}

#endif
