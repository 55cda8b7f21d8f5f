#include "nvdeviceid.h"

#include <cctype>
#include <cstdio>

NvDeviceId::NvDeviceId(uint32_t legacyId)
    : m_form(legacyId ? Form::Legacy : Form::Empty), m_number(legacyId)
{
}

NvDeviceId::NvDeviceId(uint64_t serial, uint32_t deviceType, const std::string& productCode)
    : m_form(Form::New), m_number(serial), m_deviceType(deviceType), m_productCode(productCode)
{
}

uint32_t NvDeviceId::deviceType() const
{
    return isLegacy() ? static_cast<uint32_t>(m_number >> 20) : m_deviceType;
}

std::string NvDeviceId::toString() const
{
    char text[17];
    switch (m_form) {
    case Form::Empty:
        return {};
    case Form::Legacy:
        std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(m_number));
        return text;
    case Form::New:
        std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(m_number));
        return text;
    }
    return {};
}

NvDeviceId NvDeviceId::fromString(const std::string& text)
{
    size_t pos = 0;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        pos = 2;
    const size_t digits = text.size() - pos;
    if (digits == 0 || digits > 16)
        return {};
    uint64_t value = 0;
    for (; pos < text.size(); ++pos) {
        const int c = std::toupper(static_cast<unsigned char>(text[pos]));
        if (!std::isxdigit(c))
            return {};
        value = (value << 4) | static_cast<uint64_t>(c <= '9' ? c - '0' : c - 'A' + 10);
    }
    if (digits <= 8)
        return NvDeviceId(static_cast<uint32_t>(value));
    return NvDeviceId(value, 0, std::string());
}
