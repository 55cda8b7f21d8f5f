#include "nvversion.h"

#include "nvbytes.h"

#include <cstdio>

std::string NvVersion::toString() const
{
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u", major, minor, revision);
    return text;
}

std::string NvVersion::toLongString() const
{
    std::string text = toString();
    if (build)
        text += " build " + std::to_string(build);
    if (change)
        text += " rev " + std::to_string(change);
    return text;
}

bool NvVersion::fromString(const std::string& text, NvVersion& out)
{
    unsigned parts[3] = {0, 0, 0};
    int count = 0;
    size_t pos = 0;
    while (true) {
        if (count == 3 || pos >= text.size() || text[pos] < '0' || text[pos] > '9')
            return false;
        unsigned value = 0;
        size_t digits = 0;
        while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9' && digits < 4) {
            value = value * 10 + unsigned(text[pos++] - '0');
            ++digits;
        }
        if (value > 255)
            return false;
        parts[count++] = value;
        if (pos == text.size())
            break;
        if (text[pos] != '.')
            return false;
        ++pos;
    }
    out = NvVersion(uint8_t(parts[0]), uint8_t(parts[1]), uint8_t(parts[2]));
    return true;
}

void NvVersion::toFirmwareWire(uint8_t* out) const
{
    out[0] = major;
    out[1] = minor;
    out[2] = revision;
    nvbe::writeU32(out + 3, build);
    nvbe::writeU32(out + 7, change);
}

NvVersion NvVersion::fromFirmwareWire(const uint8_t* in)
{
    return NvVersion(in[0], in[1], in[2], nvbe::readU32(in + 3), nvbe::readU32(in + 7));
}

void NvVersion::toHardwareWire(uint8_t* out) const
{
    out[0] = major;
    out[1] = minor;
}

NvVersion NvVersion::fromHardwareWire(const uint8_t* in)
{
    return NvVersion(in[0], in[1]);
}
