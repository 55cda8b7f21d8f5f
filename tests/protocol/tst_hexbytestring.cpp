// Hex byte strings as edit fields and decoders use them, and the validator that keeps a
// line edit canonical while the user types.

#include "hexbytestring.h"

#include <QLineEdit>
#include <QTest>
#include <QtTest>

#include <map>

class TestHexByteString : public QObject
{
    Q_OBJECT

private slots:
    void textFormsOfTheSameBytes_data();
    void textFormsOfTheSameBytes();
    void parsingStopsAtTheFirstForeignCharacter();
    void emptyTextHasNoBytes();
    void oddDigitCountsNormalise();
    void integerConversionsNeedTheirWidth();
    void signedAndVariableWidthIntegers();
    void floatsAndFixedPointRoundTrip();
    void hexAndBitStrings();
    void asciiForms();
    void piecesAndJoins();
    void ordersByBytesSoItCanKeyMaps();
    void validatorKeepsTheCanonicalForm();
    void validatorCutsAtTheByteLimit();
    void validatorInALineEdit();
};

void TestHexByteString::textFormsOfTheSameBytes_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("lower case with blanks") << "fa ff 30";
    QTest::newRow("dense") << "FAFF30";
    QTest::newRow("blank between every digit") << "F A F F 3 0";
    QTest::newRow("tabs and new lines") << "\tFA\nFF  30 ";
}

void TestHexByteString::textFormsOfTheSameBytes()
{
    QFETCH(QString, text);
    const HexByteString value(text);
    QCOMPARE(value.toIntegers(), (HexByteString::Bytes{0xFA, 0xFF, 0x30}));
    QCOMPARE(value.toString(), QString("FA FF 30"));
    QCOMPARE(value.toDenseString(), QString("FAFF30"));
    QCOMPARE(HexByteString(HexByteString::Bytes{0xFA, 0xFF, 0x30, 0x00, 0xD1}).toString(),
             QString("FA FF 30 00 D1"));
}

void TestHexByteString::parsingStopsAtTheFirstForeignCharacter()
{
    HexByteString value;
    QString rest;
    QVERIFY(!value.parseString("FA FG 12", rest));
    QCOMPARE(rest, QString("G 12"));
    QCOMPARE(value.toDenseString(), QString("FAF"));

    QVERIFY(value.parseString(" 01 02 ", rest));
    QVERIFY(rest.isEmpty());
    QCOMPARE(value.byteCount(), size_t(2));
}

void TestHexByteString::emptyTextHasNoBytes()
{
    const HexByteString empty(QString(""));
    QCOMPARE(empty.byteCount(), size_t(0));
    QVERIFY(empty.toString().isEmpty());
    QVERIFY(HexByteString().toString().isEmpty());
    uint8_t byte = 0;
    QVERIFY(!empty.toUInt8(byte));
}

void TestHexByteString::oddDigitCountsNormalise()
{
    HexByteString single(QString("A"));
    QVERIFY(!single.isNormalized());
    single.normalize();
    QVERIFY(single.isNormalized());
    QCOMPARE(single.toString(), QString("0A"));
    QCOMPARE(single.toIntegers(), HexByteString::Bytes{0x0A});

    HexByteString three(QString("ABC"));
    QCOMPARE(three.toString(), QString("AB C")); // as typed, until normalised
    three.normalize();
    QCOMPARE(three.toDenseString(), QString("AB0C"));
    QCOMPARE(three.toIntegers(), (HexByteString::Bytes{0xAB, 0x0C}));
}

void TestHexByteString::integerConversionsNeedTheirWidth()
{
    uint16_t value16 = 0;
    QVERIFY(!HexByteString(uint8_t(0x12)).toUInt16(value16));
    QVERIFY(HexByteString(QString("12 34 56")).toUInt16(value16));
    QCOMPARE(value16, uint16_t(0x1234));

    uint8_t value8 = 0;
    QVERIFY(HexByteString(QString("FE 01")).toUInt8(value8));
    QCOMPARE(value8, uint8_t(0xFE));
    uint32_t value32 = 0;
    QVERIFY(!HexByteString(QString("01 02 03")).toUInt32(value32));
    QVERIFY(HexByteString(QString("01 02 03 04 05")).toUInt32(value32));
    QCOMPARE(value32, 0x01020304u);
    uint64_t value64 = 0;
    QVERIFY(HexByteString::fromUInt64(0x0102030405060708ull).toUInt64(value64));
    QCOMPARE(value64, 0x0102030405060708ull);

    QCOMPARE(HexByteString::fromUInt16(0xABCD).toString(), QString("AB CD"));
    QCOMPARE(HexByteString::fromUInt(0x123456, 3).toString(), QString("12 34 56"));
    QCOMPARE(HexByteString::fromUInt8(7).toString(), QString("07"));
    QCOMPARE(HexByteString::fromUInt32(1).toString(), QString("00 00 00 01"));
    QCOMPARE(HexByteString::fromZeroes(3).toString(), QString("00 00 00"));
}

void TestHexByteString::signedAndVariableWidthIntegers()
{
    int8_t i8 = 0;
    QVERIFY(HexByteString(QString("FF")).toInt8(i8));
    QCOMPARE(i8, int8_t(-1));
    int16_t i16 = 0;
    QVERIFY(HexByteString(QString("FF 06")).toInt16(i16));
    QCOMPARE(i16, int16_t(-250));
    int32_t i32 = 0;
    QVERIFY(HexByteString(QString("FF FF FF 06")).toInt32(i32));
    QCOMPARE(i32, -250);
    int64_t i64 = 0;
    QVERIFY(HexByteString(QString("FF FF FF FF FF FF FF FE")).toInt64(i64));
    QCOMPARE(i64, int64_t(-2));

    uint32_t u = 0;
    QVERIFY(HexByteString(QString("01 02 03")).toUInt(u));
    QCOMPARE(u, 0x010203u);
    int32_t s = 0;
    QVERIFY(HexByteString(QString("FF FF FE")).toInt(s));
    QCOMPARE(s, -2);
    QVERIFY(HexByteString(QString("7F")).toInt(s));
    QCOMPARE(s, 127);
    QVERIFY(!HexByteString(QString("01 02 03 04 05")).toUInt(u));
    QVERIFY(!HexByteString().toInt(s));
}

void TestHexByteString::floatsAndFixedPointRoundTrip()
{
    double value = 0;
    QVERIFY(HexByteString(QString("00 10 00 00")).toFp1220(value));
    QCOMPARE(value, 1.0);
    QVERIFY(HexByteString(QString("80 00 00 00 00 01")).toFp1632(value));
    QCOMPARE(value, 1.5);
    QVERIFY(HexByteString(QString("80 00 00 00 FF FE")).toFp1632(value));
    QCOMPARE(value, -1.5);
    QVERIFY(HexByteString(QString("FF F8 00 00")).toFp1220(value));
    QCOMPARE(value, -0.5);
    QVERIFY(!HexByteString(QString("80 00 00 00 00")).toFp1632(value));

    QCOMPARE(HexByteString::fromFp1220(1.5).toString(), QString("00 18 00 00"));
    QCOMPARE(HexByteString::fromFp1632(-0.5).toString(), QString("80 00 00 00 FF FF"));
    QCOMPARE(HexByteString::fromFp1632(1.0).toString(), QString("00 00 00 00 00 01"));
    // Out of range saturates instead of wrapping.
    QCOMPARE(HexByteString::fromFp1220(5000.0).toString(), QString("7F FF FF FF"));

    QVERIFY(HexByteString::fromFloat32(-2.5).toFloat32(value));
    QCOMPARE(value, -2.5);
    QCOMPARE(HexByteString::fromFloat32(1.0).toString(), QString("3F 80 00 00"));
    QVERIFY(HexByteString::fromFloat64(0.1).toFloat64(value));
    QCOMPARE(value, 0.1);
    QVERIFY(!HexByteString(QString("3F 80 00")).toFloat32(value));
}

void TestHexByteString::hexAndBitStrings()
{
    QString text;
    QVERIFY(HexByteString(uint8_t(0x81)).toBitString8(text));
    QCOMPARE(text, QString("10000001"));
    QVERIFY(HexByteString(QString("80 01")).toBitString16(text));
    QCOMPARE(text, QString("1000000000000001"));
    QVERIFY(HexByteString::fromUInt32(5).toBitString32(text));
    QCOMPARE(text, QString(29, QLatin1Char('0')) + "101");
    QVERIFY(HexByteString::fromUInt64(1).toBitString64(text));
    QCOMPARE(text.size(), 64);
    QVERIFY(HexByteString::fromUInt32(5).toBitString(4, text));
    QVERIFY(!HexByteString::fromUInt32(5).toBitString(3, text));
    QVERIFY(!HexByteString(uint8_t(1)).toBitString16(text));

    QVERIFY(HexByteString(uint8_t(0x0A)).toHex8(text));
    QCOMPARE(text, QString("0x0A"));
    QVERIFY(HexByteString(QString("12 34 56")).toHex16(text));
    QCOMPARE(text, QString("0x1234"));
    QVERIFY(HexByteString::fromUInt32(0xDEADBEEF).toHex32(text));
    QCOMPARE(text, QString("0xDEADBEEF"));
    QVERIFY(!HexByteString::fromUInt32(1).toHex64(text));

    QCOMPARE(HexByteString::hex2Int('b'), 11);
    QCOMPARE(HexByteString::hex2Int('g'), -1);
    uint64_t number = 0;
    QVERIFY(HexByteString::hex2Int("1F", 2, number));
    QCOMPARE(number, uint64_t(0x1F));
    char digits[4];
    HexByteString::int2Hex(0xBEEF, digits, 4);
    QCOMPARE(QByteArray(digits, 4), QByteArray("BEEF"));
}

void TestHexByteString::asciiForms()
{
    const HexByteString code = HexByteString::fromAscii("KV-300", 8);
    QCOMPARE(code.toString(), QString("4B 56 2D 33 30 30 00 00"));
    QCOMPARE(code.toAscii(), QString("KV-300"));
    QCOMPARE(code.toAscii(false, true), QString("KV-300.."));
    QCOMPARE(HexByteString::fromAscii("LONGER TEXT", 4).toAscii(), QString("LONG"));
    QCOMPARE(HexByteString::fromAscii("abc").byteCount(), size_t(3));
}

void TestHexByteString::piecesAndJoins()
{
    HexByteString frame(QString("FA FF 30 00 D1"));
    QCOMPARE(frame.subString(1, 2).toString(), QString("FF 30"));
    QCOMPARE(frame.subString(3).toString(), QString("00 D1"));
    QCOMPARE(frame.subString(4, 10).toString(), QString("D1"));
    QVERIFY(frame.subString(9).isEmpty());

    frame.setSubString(2, HexByteString(uint8_t(0x10)));
    QCOMPARE(frame.toString(), QString("FA FF 10 00 D1"));
    frame.setSubString(6, HexByteString(uint8_t(0x01)));
    QCOMPARE(frame.toString(), QString("FA FF 10 00 D1 00 01"));

    const HexByteString joined = HexByteString(uint8_t(1)) + HexByteString(QString("02 03"));
    QCOMPARE(joined.toString(), QString("01 02 03"));
    QCOMPARE(joined, HexByteString(uint8_t(1)).concat(HexByteString(QString("0203"))));
}

void TestHexByteString::ordersByBytesSoItCanKeyMaps()
{
    QVERIFY(HexByteString(QString("01")) < HexByteString(QString("01 00")));
    QVERIFY(HexByteString(QString("01 FF")) < HexByteString(QString("02")));
    QVERIFY(HexByteString(QString("fa")) == HexByteString(QString("FA")));
    QVERIFY(HexByteString(QString("FA")) != HexByteString(QString("FA 00")));

    std::map<HexByteString, int> table;
    table[HexByteString(QString("30"))] = 1;
    table[HexByteString(QString("10"))] = 2;
    table[HexByteString(QString("3 0"))] = 3; // blanks make no new key
    QCOMPARE(table.size(), size_t(2));
    QCOMPARE(table.begin()->second, 2);
}

void TestHexByteString::validatorKeepsTheCanonicalForm()
{
    HexByteString bound;
    HexByteStringValidator validator(bound, 16);

    QString text = "faff3";
    int cursor = 5;
    QCOMPARE(validator.validate(text, cursor), QValidator::Acceptable);
    QCOMPARE(text, QString("FA FF 3"));
    QCOMPARE(cursor, 7);
    QCOMPARE(bound.toDenseString(), QString("FAFF3"));

    // A digit typed in the middle: the cursor stays after it.
    text = "FA 1FF 30";
    cursor = 4;
    validator.validate(text, cursor);
    QCOMPARE(text, QString("FA 1F F3 0"));
    QCOMPARE(cursor, 4);

    // A blank after a pair: the cursor moves past the canonical blank.
    text = "FA FF 30";
    cursor = 3;
    validator.validate(text, cursor);
    QCOMPARE(text, QString("FA FF 30"));
    QCOMPARE(cursor, 3);

    // Foreign characters end the value; nothing is rejected.
    text = "01 zz";
    cursor = 5;
    QCOMPARE(validator.validate(text, cursor), QValidator::Acceptable);
    QCOMPARE(text, QString("01"));
    QCOMPARE(cursor, 2);
}

void TestHexByteString::validatorCutsAtTheByteLimit()
{
    HexByteString bound;
    HexByteStringValidator validator(bound, 8);
    QString text = "01 02 03 04 05 06 07 08 0";
    int cursor = int(text.size());
    validator.validate(text, cursor);
    QCOMPARE(text, QString("01 02 03 04 05 06 07 08"));
    QCOMPARE(bound.byteCount(), size_t(8));
    QCOMPARE(cursor, int(text.size()));
}

void TestHexByteString::validatorInALineEdit()
{
    HexByteString bound;
    QLineEdit edit;
    edit.setValidator(new HexByteStringValidator(bound, 8, &edit));
    QTest::keyClicks(&edit, "fa ff 30 00 d1 01 02 03 04");
    QCOMPARE(edit.text(), QString("FA FF 30 00 D1 01 02 03"));
    QCOMPARE(bound.toIntegers(),
             (HexByteString::Bytes{0xFA, 0xFF, 0x30, 0x00, 0xD1, 0x01, 0x02, 0x03}));
}

QTEST_MAIN(TestHexByteString)
#include "tst_hexbytestring.moc"
