#include "nvbytes.h"

#include <cctype>

std::string nvToHex(const uint8_t* data, size_t size)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    if (size == 0)
        return text;
    text.resize(size * 3 - 1, ' ');
    for (size_t i = 0; i < size; ++i) {
        text[i * 3] = digits[data[i] >> 4];
        text[i * 3 + 1] = digits[data[i] & 0xF];
    }
    return text;
}

bool nvFromHex(const std::string& text, NvByteArray& out)
{
    NvByteArray bytes;
    int high = -1;
    for (char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (std::isspace(c)) {
            if (high >= 0)
                return false; // a byte is two adjacent digits
            continue;
        }
        if (!std::isxdigit(c))
            return false;
        const int value = std::isdigit(c) ? c - '0' : std::toupper(c) - 'A' + 10;
        if (high < 0) {
            high = value;
        } else {
            bytes.push_back(static_cast<uint8_t>(high << 4 | value));
            high = -1;
        }
    }
    if (high >= 0)
        return false;
    out = std::move(bytes);
    return true;
}
