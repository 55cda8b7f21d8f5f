#include "hexbytestring.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

const char kDigits[] = "0123456789ABCDEF";

// Nearest step of 2^-bits, saturated to what `totalBits` two's complement bits hold.
int64_t toFixed(double value, int fractionBits, int totalBits)
{
    if (std::isnan(value))
        return 0;
    const double scaled = std::nearbyint(std::ldexp(value, fractionBits));
    const double maxValue = std::ldexp(1.0, totalBits - 1);
    if (scaled >= maxValue)
        return int64_t(maxValue) - 1;
    if (scaled < -maxValue)
        return -int64_t(maxValue);
    return int64_t(scaled);
}

} // namespace

HexByteString::HexByteString(const Bytes& bytes)
{
    setIntegers(bytes);
}

HexByteString::HexByteString(uint8_t byte)
{
    setIntegers(byte);
}

HexByteString::HexByteString(const uint8_t* bytes, size_t count)
{
    setIntegers(bytes, count);
}

HexByteString::HexByteString(const QString& text)
{
    QString rest;
    parseString(text, rest);
}

void HexByteString::setIntegers(const Bytes& bytes)
{
    m_integers = bytes;
    m_integersStale = false;
    m_charactersStale = true;
}

void HexByteString::setIntegers(uint8_t byte)
{
    setIntegers(Bytes{byte});
}

void HexByteString::setIntegers(const uint8_t* bytes, size_t count)
{
    setIntegers(count ? Bytes(bytes, bytes + count) : Bytes());
}

HexByteString HexByteString::fromUInt8(uint8_t value)
{
    return fromUInt(value, 1);
}

HexByteString HexByteString::fromUInt16(uint16_t value)
{
    return fromUInt(value, 2);
}

HexByteString HexByteString::fromUInt32(uint32_t value)
{
    return fromUInt(value, 4);
}

HexByteString HexByteString::fromUInt64(uint64_t value)
{
    return fromUInt(value, 8);
}

HexByteString HexByteString::fromUInt(uint64_t value, size_t byteCount)
{
    Bytes bytes(byteCount, 0);
    for (size_t i = 0; i < byteCount && i < 8; ++i)
        bytes[byteCount - 1 - i] = uint8_t(value >> (8 * i));
    return HexByteString(bytes);
}

HexByteString HexByteString::fromFloat32(double value)
{
    const float f = float(value);
    uint32_t raw;
    std::memcpy(&raw, &f, sizeof raw);
    return fromUInt32(raw);
}

HexByteString HexByteString::fromFloat64(double value)
{
    uint64_t raw;
    std::memcpy(&raw, &value, sizeof raw);
    return fromUInt64(raw);
}

HexByteString HexByteString::fromFp1220(double value)
{
    return fromUInt32(uint32_t(toFixed(value, 20, 32)));
}

HexByteString HexByteString::fromFp1632(double value)
{
    // Fraction (the low 32 bits) first, then the integer part.
    const uint64_t raw = uint64_t(toFixed(value, 32, 48));
    return fromUInt32(uint32_t(raw)) + fromUInt16(uint16_t(raw >> 32));
}

HexByteString HexByteString::fromZeroes(size_t count)
{
    return HexByteString(Bytes(count, 0));
}

HexByteString HexByteString::fromAscii(const QString& text, int length)
{
    const QByteArray latin = text.toLatin1();
    Bytes bytes(latin.begin(), latin.end());
    if (length >= 0)
        bytes.resize(size_t(length), 0);
    return HexByteString(bytes);
}

void HexByteString::generateCharacters() const
{
    m_characters.resize(m_integers.size() * 2);
    for (size_t i = 0; i < m_integers.size(); ++i)
        int2Hex(m_integers[i], &m_characters[2 * i], 2);
    m_charactersStale = false;
}

void HexByteString::generateIntegers() const
{
    // An odd last digit stands for a byte of its own, as normalize() makes it.
    const size_t n = m_characters.size();
    m_integers.assign((n + 1) / 2, 0);
    for (size_t i = 0; i + 1 < n; i += 2)
        m_integers[i / 2] = uint8_t(hex2Int(m_characters[i]) << 4 | hex2Int(m_characters[i + 1]));
    if (n % 2)
        m_integers.back() = uint8_t(hex2Int(m_characters[n - 1]));
    m_integersStale = false;
}

const std::string& HexByteString::characters() const
{
    if (m_charactersStale)
        generateCharacters();
    return m_characters;
}

size_t HexByteString::byteCount() const
{
    return toIntegers().size();
}

const HexByteString::Bytes& HexByteString::toIntegers() const
{
    if (m_integersStale)
        generateIntegers();
    return m_integers;
}

HexByteString HexByteString::subString(size_t start, size_t count) const
{
    const Bytes& bytes = toIntegers();
    if (start >= bytes.size())
        return {};
    count = std::min(count, bytes.size() - start);
    return HexByteString(bytes.data() + start, count);
}

HexByteString HexByteString::subString(size_t start) const
{
    return subString(start, SIZE_MAX);
}

void HexByteString::setSubString(size_t start, const HexByteString& bytes)
{
    Bytes mine = toIntegers();
    const Bytes& theirs = bytes.toIntegers();
    if (mine.size() < start + theirs.size())
        mine.resize(start + theirs.size(), 0);
    std::copy(theirs.begin(), theirs.end(), mine.begin() + std::ptrdiff_t(start));
    setIntegers(mine);
}

HexByteString HexByteString::concat(const HexByteString& other) const
{
    Bytes joined = toIntegers();
    const Bytes& tail = other.toIntegers();
    joined.insert(joined.end(), tail.begin(), tail.end());
    return HexByteString(joined);
}

void HexByteString::normalize()
{
    if (isNormalized())
        return;
    characters();
    m_characters.insert(m_characters.size() - 1, 1, '0');
    m_integersStale = true;
}

bool HexByteString::isNormalized() const
{
    return characters().size() % 2 == 0;
}

template <typename T>
bool HexByteString::readUnsigned(size_t width, T& value) const
{
    const Bytes& bytes = toIntegers();
    if (bytes.size() < width)
        return false;
    T result = 0;
    for (size_t i = 0; i < width; ++i)
        result = T(result << 8 | bytes[i]);
    value = result;
    return true;
}

bool HexByteString::toUInt8(uint8_t& value) const
{
    return readUnsigned(1, value);
}

bool HexByteString::toInt8(int8_t& value) const
{
    uint8_t raw;
    if (!readUnsigned(1, raw))
        return false;
    value = int8_t(raw);
    return true;
}

bool HexByteString::toUInt16(uint16_t& value) const
{
    return readUnsigned(2, value);
}

bool HexByteString::toInt16(int16_t& value) const
{
    uint16_t raw;
    if (!readUnsigned(2, raw))
        return false;
    value = int16_t(raw);
    return true;
}

bool HexByteString::toUInt32(uint32_t& value) const
{
    return readUnsigned(4, value);
}

bool HexByteString::toInt32(int32_t& value) const
{
    uint32_t raw;
    if (!readUnsigned(4, raw))
        return false;
    value = int32_t(raw);
    return true;
}

bool HexByteString::toUInt64(uint64_t& value) const
{
    return readUnsigned(8, value);
}

bool HexByteString::toInt64(int64_t& value) const
{
    uint64_t raw;
    if (!readUnsigned(8, raw))
        return false;
    value = int64_t(raw);
    return true;
}

bool HexByteString::toFloat32(double& value) const
{
    uint32_t raw;
    if (!readUnsigned(4, raw))
        return false;
    float f;
    std::memcpy(&f, &raw, sizeof f);
    value = f;
    return true;
}

bool HexByteString::toFloat64(double& value) const
{
    uint64_t raw;
    if (!readUnsigned(8, raw))
        return false;
    std::memcpy(&value, &raw, sizeof value);
    return true;
}

bool HexByteString::toFp1220(double& value) const
{
    int32_t raw;
    if (!toInt32(raw))
        return false;
    value = std::ldexp(double(raw), -20);
    return true;
}

bool HexByteString::toFp1632(double& value) const
{
    const Bytes& bytes = toIntegers();
    if (bytes.size() < 6)
        return false;
    uint32_t fraction = 0;
    readUnsigned(4, fraction);
    const int16_t integer = int16_t(uint16_t(bytes[4] << 8 | bytes[5]));
    value = std::ldexp(double(int64_t(integer) * 4294967296LL + int64_t(fraction)), -32);
    return true;
}

bool HexByteString::toUInt(uint32_t& value) const
{
    const size_t n = byteCount();
    if (n == 0 || n > 4)
        return false;
    return readUnsigned(n, value);
}

bool HexByteString::toInt(int32_t& value) const
{
    uint32_t raw;
    if (!toUInt(raw))
        return false;
    const unsigned bits = unsigned(byteCount() * 8);
    if (bits < 32 && (raw >> (bits - 1)) & 1)
        raw |= ~uint32_t(0) << bits;
    value = int32_t(raw);
    return true;
}

namespace {

bool hexText(const HexByteString& bytes, size_t width, QString& text)
{
    uint64_t value;
    if (bytes.byteCount() < width)
        return false;
    const std::string digits = bytes.subString(0, width).toDenseString().toStdString();
    if (!HexByteString::hex2Int(digits.data(), digits.size(), value))
        return false;
    text = QStringLiteral("0x") + QString::fromStdString(digits);
    return true;
}

} // namespace

bool HexByteString::toHex8(QString& text) const
{
    return hexText(*this, 1, text);
}

bool HexByteString::toHex16(QString& text) const
{
    return hexText(*this, 2, text);
}

bool HexByteString::toHex32(QString& text) const
{
    return hexText(*this, 4, text);
}

bool HexByteString::toHex64(QString& text) const
{
    return hexText(*this, 8, text);
}

bool HexByteString::toBitString(size_t width, QString& text) const
{
    if (width != 1 && width != 2 && width != 4 && width != 8)
        return false;
    const Bytes& bytes = toIntegers();
    if (bytes.size() < width)
        return false;
    QString bits;
    bits.reserve(int(width * 8));
    for (size_t i = 0; i < width; ++i)
        for (int bit = 7; bit >= 0; --bit)
            bits += QLatin1Char((bytes[i] >> bit) & 1 ? '1' : '0');
    text = bits;
    return true;
}

bool HexByteString::toBitString8(QString& text) const
{
    return toBitString(1, text);
}

bool HexByteString::toBitString16(QString& text) const
{
    return toBitString(2, text);
}

bool HexByteString::toBitString32(QString& text) const
{
    return toBitString(4, text);
}

bool HexByteString::toBitString64(QString& text) const
{
    return toBitString(8, text);
}

QString HexByteString::toString() const
{
    const std::string& digits = characters();
    QString text;
    text.reserve(int(digits.size() + digits.size() / 2));
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && i % 2 == 0)
            text += QLatin1Char(' ');
        text += QLatin1Char(digits[i]);
    }
    return text;
}

QString HexByteString::toDenseString() const
{
    return QString::fromLatin1(characters().data(), qsizetype(characters().size()));
}

QString HexByteString::toAscii(bool stopAtZero, bool printableOnly) const
{
    QString text;
    for (uint8_t byte : toIntegers()) {
        if (byte == 0 && stopAtZero)
            break;
        const bool printable = (byte >= 0x20 && byte < 0x7F) || byte >= 0xA0;
        text += QChar(printable || !printableOnly ? char16_t(byte) : u'.');
    }
    return text;
}

bool HexByteString::parseString(const QString& text, QString& rest)
{
    m_characters.clear();
    rest.clear();
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isSpace())
            continue;
        const int digit = c.unicode() < 0x80 ? hex2Int(char(c.unicode())) : -1;
        if (digit < 0) {
            rest = text.mid(i);
            break;
        }
        m_characters += kDigits[digit];
    }
    m_charactersStale = false;
    m_integersStale = true;
    return rest.isEmpty();
}

int HexByteString::hex2Int(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    return -1;
}

bool HexByteString::hex2Int(const char* digits, size_t count, uint64_t& value)
{
    if (count > 16)
        return false;
    uint64_t result = 0;
    for (size_t i = 0; i < count; ++i) {
        const int digit = hex2Int(digits[i]);
        if (digit < 0)
            return false;
        result = result << 4 | uint64_t(digit);
    }
    value = result;
    return true;
}

void HexByteString::int2Hex(uint64_t value, char* digits, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        digits[count - 1 - i] = i < 16 ? kDigits[(value >> (4 * i)) & 0xF] : '0';
}

// ---- HexByteStringValidator ---------------------------------------------------------

HexByteStringValidator::HexByteStringValidator(HexByteString& target, unsigned long maxBytes,
                                               QObject* parent)
    : QValidator(parent), m_target(target), m_maxBytes(maxBytes)
{
}

QValidator::State HexByteStringValidator::validate(QString& text, int& cursor) const
{
    const auto canonical = [this](const QString& input) {
        HexByteString value(input);
        if (value.byteCount() > m_maxBytes) {
            // Keep whole digit pairs: the first maxBytes bytes as typed.
            value = HexByteString(value.toDenseString().left(int(m_maxBytes * 2)));
        }
        return value;
    };

    m_target = canonical(text);
    const QString formatted = m_target.toString();

    const int oldCursor = std::clamp(cursor, 0, int(text.size()));
    const HexByteString before = canonical(text.left(oldCursor));
    int newCursor = int(before.toString().size());
    // A blank typed after a digit pair stays behind the cursor: the canonical text has its
    // own blank there.
    const int digitsBefore = int(before.toDenseString().size());
    if (oldCursor > 0 && text.at(oldCursor - 1).isSpace() && digitsBefore > 0 &&
        digitsBefore % 2 == 0 && newCursor < formatted.size())
        ++newCursor;
    text = formatted;
    cursor = std::min(newCursor, int(text.size()));
    return Acceptable;
}

void HexByteStringValidator::fixup(QString& text) const
{
    int cursor = int(text.size());
    validate(text, cursor);
}
