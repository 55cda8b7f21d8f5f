#pragma once

#include <cstdint>
#include <string>

// The identity of a device. Two forms exist: the legacy 32-bit identifier (device type
// in bits 20-31, serial in bits 0-19) and the newer form, a 64-bit serial that comes
// with a product code and a device-type number. Identity, order and text are those of
// the number; legacy identifiers sort before new ones. The default value is empty and
// means "no device".
class NvDeviceId
{
public:
    NvDeviceId() = default;
    explicit NvDeviceId(uint32_t legacyId);
    NvDeviceId(uint64_t serial, uint32_t deviceType, const std::string& productCode);

    bool isEmpty() const { return m_form == Form::Empty; }
    bool isLegacy() const { return m_form == Form::Legacy; }

    // The legacy identifier, or 0 for the new form.
    uint32_t legacyDeviceId() const { return isLegacy() ? static_cast<uint32_t>(m_number) : 0; }
    // The number that identifies the device in either form.
    uint64_t toInt() const { return m_number; }
    // Bits 20-31 of a legacy identifier; the device-type number of the new form.
    uint32_t deviceType() const;
    const std::string& productCode() const { return m_productCode; }

    // Upper-case hexadecimal: 8 digits for the legacy form, 16 for the new one;
    // empty for the empty identifier.
    std::string toString() const;
    // Parses what toString writes (case-insensitive, optional "0x"); 1 to 8 digits give
    // the legacy form, 9 to 16 the new one. Anything else gives the empty identifier.
    static NvDeviceId fromString(const std::string& text);

    friend bool operator==(const NvDeviceId& a, const NvDeviceId& b)
    {
        return a.m_form == b.m_form && a.m_number == b.m_number;
    }
    friend bool operator!=(const NvDeviceId& a, const NvDeviceId& b) { return !(a == b); }
    friend bool operator<(const NvDeviceId& a, const NvDeviceId& b)
    {
        return a.m_form != b.m_form ? a.m_form < b.m_form : a.m_number < b.m_number;
    }
    friend bool operator>(const NvDeviceId& a, const NvDeviceId& b) { return b < a; }
    friend bool operator<=(const NvDeviceId& a, const NvDeviceId& b) { return !(b < a); }
    friend bool operator>=(const NvDeviceId& a, const NvDeviceId& b) { return !(a < b); }

private:
    // Declaration order is the sort order of the forms.
    enum class Form : uint8_t
    {
        Empty,
        Legacy,
        New
    };

    Form m_form = Form::Empty;
    uint64_t m_number = 0;
    uint32_t m_deviceType = 0;
    std::string m_productCode;
};
