#pragma once

// Message bytes together with their hexadecimal text.
//
// Edit fields show exactly what the user typed (an odd digit count included) while the
// decoders work on bytes, so both forms are kept and each is rebuilt lazily when the other
// one changed. Values compare by their bytes, so they can key ordered maps.

#include <QMetaType>
#include <QString>
#include <QValidator>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class HexByteString
{
public:
    using Bytes = std::vector<uint8_t>;

    HexByteString() = default;
    HexByteString(const Bytes& bytes);
    explicit HexByteString(uint8_t byte);
    HexByteString(const uint8_t* bytes, size_t count);
    // Keeps the hexadecimal digits; see parseString.
    explicit HexByteString(const QString& text);

    void setIntegers(const Bytes& bytes);
    void setIntegers(uint8_t byte);
    void setIntegers(const uint8_t* bytes, size_t count);

    // Big-endian factories.
    static HexByteString fromUInt8(uint8_t value);
    static HexByteString fromUInt16(uint16_t value);
    static HexByteString fromUInt32(uint32_t value);
    static HexByteString fromUInt64(uint64_t value);
    static HexByteString fromUInt(uint64_t value, size_t byteCount);
    static HexByteString fromFloat32(double value);
    static HexByteString fromFloat64(double value);
    // Fixed point; rounds to the nearest step and saturates at the ends of the range.
    static HexByteString fromFp1220(double value);
    static HexByteString fromFp1632(double value);
    static HexByteString fromZeroes(size_t count);
    // Latin-1 bytes of `text`, zero-padded or cut to `length`; a negative length keeps the
    // text's own length.
    static HexByteString fromAscii(const QString& text, int length = -1);

    size_t byteCount() const;
    bool isEmpty() const { return byteCount() == 0; }
    const Bytes& toIntegers() const;
    uint8_t at(size_t index) const { return toIntegers().at(index); }
    // Pieces out of range are cut to what exists.
    HexByteString subString(size_t start, size_t count) const;
    HexByteString subString(size_t start) const;
    // Overwrites from `start`, growing with the new bytes where needed (a gap is zeros).
    void setSubString(size_t start, const HexByteString& bytes);
    HexByteString concat(const HexByteString& other) const;
    HexByteString operator+(const HexByteString& other) const { return concat(other); }

    // An odd digit count gets a "0" before its last digit: ABC becomes AB0C.
    void normalize();
    bool isNormalized() const;

    // Each needs at least the type's width in bytes and reads the first ones, big-endian.
    bool toUInt8(uint8_t& value) const;
    bool toInt8(int8_t& value) const;
    bool toUInt16(uint16_t& value) const;
    bool toInt16(int16_t& value) const;
    bool toUInt32(uint32_t& value) const;
    bool toInt32(int32_t& value) const;
    bool toUInt64(uint64_t& value) const;
    bool toInt64(int64_t& value) const;
    bool toFloat32(double& value) const;
    bool toFloat64(double& value) const;
    bool toFp1220(double& value) const;
    bool toFp1632(double& value) const;
    // All bytes (1 to 4) as one integer of that width.
    bool toUInt(uint32_t& value) const;
    bool toInt(int32_t& value) const;
    // "0x81", zero-padded to the width.
    bool toHex8(QString& text) const;
    bool toHex16(QString& text) const;
    bool toHex32(QString& text) const;
    bool toHex64(QString& text) const;
    // Most significant bit first.
    bool toBitString8(QString& text) const;
    bool toBitString16(QString& text) const;
    bool toBitString32(QString& text) const;
    bool toBitString64(QString& text) const;
    bool toBitString(size_t byteCount, QString& text) const;

    // "FA FF 30 00 D1": a blank after every second digit but the last.
    QString toString() const;
    QString toDenseString() const;
    // The bytes as Latin-1 text. `stopAtZero` ends the text at the first zero byte (fixed
    // fields are zero-padded); `printableOnly` shows other control bytes as ".".
    QString toAscii(bool stopAtZero = true, bool printableOnly = true) const;

    // Takes the hexadecimal digits of `text` (either case), skipping white space; the
    // first other character and everything after it go to `rest`. True when `rest` is
    // empty.
    bool parseString(const QString& text, QString& rest);

    // -1 for a character that is not a hexadecimal digit.
    static int hex2Int(char digit);
    // `count` digits (at most 16) as one number; false on a non-digit.
    static bool hex2Int(const char* digits, size_t count, uint64_t& value);
    // The `count` low digits of `value`, upper case, most significant first.
    static void int2Hex(uint64_t value, char* digits, size_t count);

    friend bool operator==(const HexByteString& a, const HexByteString& b)
    {
        return a.toIntegers() == b.toIntegers();
    }
    friend bool operator!=(const HexByteString& a, const HexByteString& b) { return !(a == b); }
    friend bool operator<(const HexByteString& a, const HexByteString& b)
    {
        return a.toIntegers() < b.toIntegers();
    }

private:
    void generateCharacters() const;
    void generateIntegers() const;
    const std::string& characters() const;
    template <typename T>
    bool readUnsigned(size_t width, T& value) const;

    mutable std::string m_characters;
    mutable Bytes m_integers;
    mutable bool m_charactersStale = false;
    mutable bool m_integersStale = false;
};

// Keeps a line edit's text in the canonical form of HexByteString::toString while the user
// types, and the value bound to it up to date. It never rejects input; it corrects it.
class HexByteStringValidator : public QValidator
{
    Q_OBJECT
public:
    HexByteStringValidator(HexByteString& target, unsigned long maxBytes,
                           QObject* parent = nullptr);

    State validate(QString& text, int& cursor) const override;
    void fixup(QString& text) const override;
    unsigned long maxBytes() const { return m_maxBytes; }

private:
    HexByteString& m_target;
    unsigned long m_maxBytes;
};

Q_DECLARE_METATYPE(HexByteString)
