// The message structure database: reading definition files, decoding data into text and
// fields, editing data field by field, and the frame rules of hand-made messages.

#include "nvmessagedataeditor.h"
#include "nvmessagemodel.h"
#include "nvmessagesstructure.h"

#include <nvdatapacket.h>
#include <nvenums.h>
#include <nvmessage.h>

#include <QComboBox>
#include <QCoreApplication>
#include <QLineEdit>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <sstream>

namespace {

NvMessagesStructure structuresFrom(const std::string& text)
{
    NvMessagesStructure structures;
    std::istringstream stream(text);
    structures.read(stream);
    return structures;
}

QString decodeText(const NvMessagesStructure& structures, uint8_t mid, const QString& data)
{
    return structures.decode(mid, HexByteString(data)).text;
}

HexByteString corrected(const QString& text)
{
    HexByteString frame(text);
    NvMessageModel::correctMessage(frame);
    return frame;
}

} // namespace

class TestMessagesStructure : public QObject
{
    Q_OBJECT

private slots:
    void shippedFileParsesAndCoversTheProtocol();
    void commentAndEmptyLinesCountForLineNumbers();
    void linesThatAreDropped();
    void laterDuplicateWins();
    void descriptionsAndLookups();
    void sizeVariablesFromEarlierFields();
    void shortDataGivesNoDataTexts();
    void numberFields_data();
    void numberFields();
    void tablesBitsAndText();
    void dataPacketItemsResolveThroughTheItemTables();
    void selfReferringItemsEnd();
    void editorWritesFieldsBack();
    void editorEditsDataItemValues();
    void frameCorrection();
    void missingFileLeavesTheDatabaseEmpty();
};

void TestMessagesStructure::shippedFileParsesAndCoversTheProtocol()
{
    NvMessagesStructure structures;
    QVERIFY2(structures.read(), "messages_structure.txt beside the test program");
    for (const NvMessageStructure* error : structures.parseErrors())
        QFAIL(qPrintable(QString("parse error in %1: %2")
                             .arg(error->description().messageName(),
                                  QString::fromStdString(error->dataFormatString()))));

    for (int mid = 0; mid < 256; ++mid) {
        const QString libraryName = QString::fromLatin1(nvMessageIdName(uint8_t(mid)));
        if (libraryName == "Unknown")
            continue;
        const NvMessageStructure* entry = nullptr;
        QVERIFY2(structures.getMIDStructure(HexByteString(uint8_t(mid)), entry),
                 qPrintable(libraryName));
        // Req/Set pairs share an identifier; their entry carries the bracketed form.
        const auto& description = entry->description();
        if (description.count() == 1)
            QCOMPARE(description.messageName(), libraryName);
        else
            QVERIFY2(libraryName.endsWith(description.messageName()), qPrintable(libraryName));
    }

    for (int quantity = 0; quantity < 0x10000; quantity += 0x10) {
        const QString libraryName = QString::fromLatin1(nvDataIdentifierName(uint16_t(quantity)));
        if (libraryName == "Unknown")
            continue;
        const NvMessageStructure* entry = nullptr;
        QVERIFY2(structures.getNDIStructure(HexByteString::fromUInt16(uint16_t(quantity)), entry),
                 qPrintable(libraryName));
        QCOMPARE(entry->description().messageName(), libraryName);
        QVERIFY(entry->dataFormat());
    }
    for (int precision = 0; precision < 4; ++precision) {
        const NvMessageStructure* entry = nullptr;
        QVERIFY(structures.getNDIFormatStructure(HexByteString(uint8_t(precision)), entry));
    }
    const NvMessageStructure* frame = nullptr;
    QVERIFY(structures.getNDICoordStructure(HexByteString(uint8_t(0x04)), frame));
    QCOMPARE(frame->description().messageName(), QString("NED"));

    // The worked examples of the protocol description.
    QCOMPARE(decodeText(structures, 0x36, "10 20 02 12 34"), QString("{(Item: Packet Counter, "
                                                                     "Size: 2, Data: 4660)}"));
    QCOMPARE(decodeText(structures, 0x2D, "09 0E 02 00 00 C3 50 FF FF FF 06 00 03 01 02 03 E8 01"),
             QString("{(Line: GNSS 1PPS, Function: Time pulse 1PPS, Polarity: Falling edge, "
                     "Pulse width: 50000 us, Offset: -250 us, Skip first: 3, Skip factor: 258, "
                     "Clock period: 1000, Trigger once: 1)}"));
    QCOMPARE(decodeText(structures, 0x42, "21"), QString("(Error: Invalid parameter)"));
    QCOMPARE(decodeText(structures, 0x30, ""), QString());
}

void TestMessagesStructure::commentAndEmptyLinesCountForLineNumbers()
{
    const NvMessagesStructure structures = structuresFrom("% a comment\n"
                                                          "\n"
                                                          "mid, 01, Good, <1,uint8,a,A>\n"
                                                          "%mid, 02, Commented, <1,uint8,a,A>\n"
                                                          "mid, 02, Broken, (<1,uint8,a,A>\n"
                                                          "mid, 03, Trailing, <1,uint8,a,A> x\n");
    const NvMessageStructure* commented = nullptr;
    QVERIFY(structures.getMIDStructure(HexByteString(uint8_t(2)), commented));
    QCOMPARE(commented->description().messageName(), QString("Broken")); // not "Commented"

    const NvDecodedMessage broken = structures.decode(0x02, HexByteString(QString("05")));
    QVERIFY(broken.known);
    QCOMPARE(broken.name, QString("Broken"));
    QCOMPARE(broken.text, QString("<parse error @ messages_structure.txt:5"));
    QVERIFY(broken.hasProblems);
    QCOMPARE(decodeText(structures, 0x03, "05"),
             QString("<parse error @ messages_structure.txt:6"));
    QCOMPARE(structures.parseErrors().size(), size_t(2));
    QCOMPARE(decodeText(structures, 0x01, "05"), QString("A: 5"));

    // The same through a file; CR LF line ends change nothing.
    QTemporaryDir dir;
    QFile file(dir.filePath("defs.txt"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("%\r\n\r\nmid, 01, One, {<2,uint16,v,>\r\n");
    file.close();
    NvMessagesStructure fromFile;
    QVERIFY(fromFile.read(file.fileName()));
    QCOMPARE(decodeText(fromFile, 0x01, "00 01"),
             QString("<parse error @ messages_structure.txt:3"));
}

void TestMessagesStructure::linesThatAreDropped()
{
    const NvMessagesStructure structures = structuresFrom("mid, , NoIdentifier, <1,uint8,a,A>\n"
                                                          "mid, 05, -bad name, <1,uint8,a,A>\n"
                                                          "mid, 06, [Req/Set, <1,uint8,a,A>\n"
                                                          "mid, 07\n"
                                                          "mid, 08, Kept\n");
    const NvMessagesStructure::Table* mids = structures.table("mid");
    QVERIFY(mids);
    QCOMPARE(mids->size(), size_t(1));
    QCOMPARE(mids->begin()->second.description().messageName(), QString("Kept"));
    QVERIFY(!mids->begin()->second.dataFormat());
    QCOMPARE(decodeText(structures, 0x08, "01 02"), QString("01 02"));
}

void TestMessagesStructure::laterDuplicateWins()
{
    const NvMessagesStructure structures = structuresFrom("mid, 10, First, <1,uint8,a,A>\n"
                                                          "mid, 10, Second, <1,int8,b,B>\n");
    const NvDecodedMessage decoded = structures.decode(0x10, HexByteString(QString("FF")));
    QCOMPARE(decoded.name, QString("Second"));
    QCOMPARE(decoded.text, QString("B: -1"));
}

void TestMessagesStructure::descriptionsAndLookups()
{
    const NvMessagesStructure structures =
        structuresFrom("mid, 18, [Req/Set] BaudRate, <1,baudrate,code,Baud rate>\n"
                       "mid, 1, Single digit, \n"
                       "baudrate, 09, 115200,\n");
    const NvMessageStructure* entry = nullptr;
    QVERIFY(structures.getMIDStructure(HexByteString(uint8_t(0x18)), entry));
    QCOMPARE(entry->description().count(), size_t(3));
    QCOMPARE(entry->description().displayText(), QString("[Req/Set]BaudRate"));
    QCOMPARE(entry->description().name(0), QString("Req"));
    QCOMPARE(entry->dataFormatString(), std::string("<1,baudrate,code,Baud rate>"));
    QVERIFY(entry->valid());

    // A one-digit identifier is normalised to one byte.
    QVERIFY(structures.getMIDStructure(HexByteString(uint8_t(0x01)), entry));
    QCOMPARE(entry->description().messageName(), QString("Single digit"));

    QVERIFY(!structures.getMIDStructure(HexByteString(uint8_t(0x77)), entry));
    QVERIFY(entry == nullptr);
    QVERIFY(!structures.getStructure("nosuchtable", HexByteString(uint8_t(0x18)), entry));
    const NvMessageStructure* baudRate = nullptr;
    structures.getMIDStructure(HexByteString(uint8_t(0x18)), baudRate);
    QCOMPARE(structures.findByName("mid", "BaudRate"), baudRate);
    QVERIFY(!structures.findByName("mid", "Nothing"));

    const NvDecodedMessage unknown = structures.decode(0x77, HexByteString(QString("01 02")));
    QVERIFY(!unknown.known);
    QCOMPARE(unknown.name, QString("Unknown"));
    QCOMPARE(unknown.text, QString("01 02"));

    const NvDecodedMessage rate = structures.decode(0x18, HexByteString(QString("09")));
    QCOMPARE(rate.description, QString("[Req/Set]BaudRate"));
    QCOMPARE(rate.text, QString("Baud rate: 115200"));
    QCOMPARE(rate.fields.size(), size_t(1));
    QCOMPARE(rate.fields[0].typeName, QString("Enum"));
    QCOMPARE(decodeText(structures, 0x18, "0A"), QString("Baud rate: 0A"));
}

void TestMessagesStructure::sizeVariablesFromEarlierFields()
{
    const NvMessagesStructure structures = structuresFrom(
        "mid, 1D, Text, (<1,size,len,Length>,<len,ascii,text,Text>,<1,uint8,after,After>)\n"
        "mid, 1E, Missing, (<1,uint8,len,Length>,<other,ascii,text,Text>)\n"
        "mid, 1F, Zero, <0,uint8,zero,Zero>\n");
    const NvDecodedMessage text = structures.decode(0x1D, HexByteString(QString("03 41 42 43 07")));
    QCOMPARE(text.text, QString("(Length: 3, Text: ABC, After: 7)"));
    QVERIFY(!text.hasProblems);
    QCOMPARE(text.fields.size(), size_t(3));
    QCOMPARE(text.fields[1].typeName, QString("Ascii"));
    QCOMPARE(text.fields[1].offset, size_t(1));
    QCOMPARE(text.fields[1].value.toString(), QString("ABC"));
    QCOMPARE(text.fields[2].offset, size_t(4));
    QCOMPARE(text.fields[0].typeName, QString("Size"));

    QCOMPARE(decodeText(structures, 0x1E, "03 41 42 43"), QString("(Length: 3, <bad size>)"));
    QCOMPARE(decodeText(structures, 0x1F, "01"), QString("<bad size>"));
}

void TestMessagesStructure::shortDataGivesNoDataTexts()
{
    const NvMessagesStructure structures =
        structuresFrom("mid, 01, Pair, (<2,uint16,a,A>,<4,uint32,b,B>)\n"
                       "mid, 02, List, {<2,uint16,v,>}\n"
                       "mid, 03, Unlabelled, <4,uint32,v,>\n");
    QCOMPARE(decodeText(structures, 0x01, "00 01 00"),
             QString("(A: 1, <no data (possible: B, 4 bytes)>)"));
    QCOMPARE(decodeText(structures, 0x01, "00 01"), QString("(A: 1)")); // nothing after the end
    QCOMPARE(decodeText(structures, 0x01, ""), QString("<no data>"));
    QCOMPARE(decodeText(structures, 0x02, ""), QString("<no data>"));
    QCOMPARE(decodeText(structures, 0x02, "00 01 00 02 00"), QString("{1, 2, <no data>}"));
    QCOMPARE(decodeText(structures, 0x03, "00"), QString("<no data>"));
    QVERIFY(structures.decode(0x02, HexByteString(QString("00"))).hasProblems);
    QVERIFY(!structures.decode(0x02, HexByteString(QString("00 01"))).hasProblems);
    // Bytes after the format are shown, not lost.
    QCOMPARE(decodeText(structures, 0x03, "00 00 00 01 FF"), QString("1 + FF"));
}

void TestMessagesStructure::numberFields_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("data");
    QTest::addColumn<QString>("text");
    QTest::addColumn<double>("value");
    QTest::addColumn<QString>("typeName");

    QTest::newRow("fp1220 one") << "<4,fp1220,v,V>"
                                << "00 10 00 00"
                                << "V: 1" << 1.0 << "Fp1220";
    QTest::newRow("fp1632 one and a half") << "<6,fp1632,v,V>"
                                           << "80 00 00 00 00 01"
                                           << "V: 1.5" << 1.5 << "Fp1632";
    QTest::newRow("fp1632 negative") << "<6,fp1632,v,V>"
                                     << "80 00 00 00 FF FE"
                                     << "V: -1.5" << -1.5 << "Fp1632";
    QTest::newRow("float32") << "<4,float32,v,V>"
                             << "3E 4C CC CD"
                             << "V: 0.2" << double(0.2f) << "Float32";
    QTest::newRow("float64 with unit") << "<8,float64(m),v,V>"
                                       << "3F B9 99 99 99 99 99 9A"
                                       << "V: 0.1 m" << 0.1 << "Float64";
    QTest::newRow("uint8") << "<1,uint8,v,V>"
                           << "FF"
                           << "V: 255" << 255.0 << "UInt8";
    QTest::newRow("uint16") << "<2,uint16,v,V>"
                            << "12 34"
                            << "V: 4660" << 4660.0 << "UInt16";
    QTest::newRow("uint32") << "<4,uint32,v,V>"
                            << "FF FF FF FF"
                            << "V: 4294967295" << 4294967295.0 << "UInt32";
    QTest::newRow("int8") << "<1,int8,v,V>"
                          << "80"
                          << "V: -128" << -128.0 << "Int8";
    QTest::newRow("int16") << "<2,int16,v,V>"
                           << "FF 06"
                           << "V: -250" << -250.0 << "Int16";
    QTest::newRow("int32 scaled") << "<4,int32(1e-7,deg),v,Latitude>"
                                  << "1D CD 65 00"
                                  << "Latitude: 50 deg" << 50.0 << "Int32";
    QTest::newRow("no label") << "<2,uint16,v,>"
                              << "00 2A"
                              << "42" << 42.0 << "UInt16";
}

void TestMessagesStructure::numberFields()
{
    QFETCH(QString, format);
    QFETCH(QString, data);
    QFETCH(QString, text);
    QFETCH(double, value);
    QFETCH(QString, typeName);

    const NvMessagesStructure structures =
        structuresFrom("mid, 01, Number, " + format.toStdString() + "\n");
    QVERIFY(structures.parseErrors().empty());
    const NvDecodedMessage decoded = structures.decode(0x01, HexByteString(data));
    QCOMPARE(decoded.text, text);
    QCOMPARE(decoded.fields.size(), size_t(1));
    QCOMPARE(decoded.fields[0].typeName, typeName);
    QCOMPARE(decoded.fields[0].value.toDouble(), value);
    QCOMPARE(decoded.fields[0].bytes, HexByteString(data));
}

void TestMessagesStructure::tablesBitsAndText()
{
    const NvMessagesStructure structures =
        structuresFrom("mid, 01, Mixed, (<1,colour,c,Colour>,<1,bits8(ok,valid,,fix),s,Status>,"
                       "<2,hex16,h,Hex>,<3,null,n,Raw>,<*,ascii,t,Text>)\n"
                       "mid, 02, Bits, (<2,bits16,a,A>,<4,bits32,b,B>,<8,hex64,c,C>)\n"
                       "colour, 01, Red,\n"
                       "colour, 02, Green,\n");
    const NvDecodedMessage mixed =
        structures.decode(0x01, HexByteString(QString("02 09 BE EF 00 01 02 48 69 00 00")));
    QCOMPARE(mixed.text, QString("(Colour: Green, Status: 00001001 (ok | fix), Hex: 0xBEEF, "
                                 "Raw: 00 01 02, Text: Hi)"));
    QStringList types;
    for (const NvDecodedField& field : mixed.fields)
        types << field.typeName;
    QCOMPARE(types, QStringList({"Enum", "BitField8", "Hex16", "Null", "Ascii"}));
    QCOMPARE(mixed.fields[1].value.toUInt(), 9u);

    QCOMPARE(decodeText(structures, 0x02, "80 01 00 00 00 03 01 23 45 67 89 AB CD EF"),
             QString("(A: 1000000000000001, B: 00000000000000000000000000000011, "
                     "C: 0x0123456789ABCDEF)"));
}

void TestMessagesStructure::dataPacketItemsResolveThroughTheItemTables()
{
    NvMessagesStructure structures;
    QVERIFY(structures.read());

    // Packet counter, acceleration in fp16.32 NED, temperature in float32: built by the
    // device library, decoded by the tables.
    NvMessage message = NvMessage::toDevice(0x36);
    NvByteArray data = {0x10, 0x20, 0x02, 0x00, 0x07};
    const uint16_t acceleration = NDI_ACCELERATION | NDP_FP1632 | NCF_NED;
    data.push_back(uint8_t(acceleration >> 8));
    data.push_back(uint8_t(acceleration));
    data.push_back(18);
    for (double v : {1.5, -0.5, 9.75}) {
        uint8_t bytes[6];
        nvEncodeReal(v, NDP_FP1632, bytes);
        data.insert(data.end(), bytes, bytes + 6);
    }
    data.insert(data.end(), {0x08, 0x10, 0x04});
    const HexByteString temperature = HexByteString::fromFloat32(21.5);
    data.insert(data.end(), temperature.toIntegers().begin(), temperature.toIntegers().end());
    message.setData(data);

    const NvDecodedMessage decoded = structures.decode(message);
    QCOMPARE(decoded.name, QString("DataPacket"));
    QVERIFY(!decoded.hasProblems);
    QCOMPARE(
        decoded.text,
        QString("{(Item: Packet Counter, Size: 2, Data: 7), "
                "(Item: Acceleration (Fp1632, NED), Size: 18, Data: (x: 1.5, y: -0.5, z: 9.75)), "
                "(Item: Temperature (Float32, ENU), Size: 4, Data: 21.5)}"));

    std::vector<double> accelerations;
    for (const NvDecodedField& field : decoded.fields)
        if (field.group == "Acceleration") {
            QCOMPARE(field.typeName, QString("NDI Real"));
            accelerations.push_back(field.value.toDouble());
        }
    QCOMPARE(accelerations, (std::vector<double>{1.5, -0.5, 9.75}));
    // Offsets point into the message data: the z value starts after two items' headers.
    const auto z = std::find_if(decoded.fields.begin(), decoded.fields.end(),
                                [](const NvDecodedField& f) { return f.label == "z"; });
    QVERIFY(z != decoded.fields.end());
    QCOMPARE(z->offset, size_t(5 + 3 + 12));
    QCOMPARE(z->bytes.byteCount(), size_t(6));

    // An unknown item is kept as bytes and the rest still decodes.
    QCOMPARE(structures.decode(0x36, HexByteString(QString("FF F0 01 AA 10 20 02 00 01"))).text,
             QString("{(Item: Unknown (FF F0), Size: 1, Data: AA), "
                     "(Item: Packet Counter, Size: 2, Data: 1)}"));
    QCOMPARE(structures.decodeData("ndi", HexByteString::fromUInt16(0x1020),
                                   HexByteString(QString("00 05"))),
             QString("5"));
}

void TestMessagesStructure::selfReferringItemsEnd()
{
    // An item whose payload is again item data, and a number format that is an item
    // reference: the decode ends with what it can show.
    const NvMessagesStructure structures =
        structuresFrom("mid, 36, Packet, {(<2,ndi,id,Item>,<1,size,size,Size>,<size,ndidata,d,>)}\n"
                       "ndi, 1000, Loop, {(<2,ndi,id,Item>,<1,size,size,Size>,<size,ndidata,d,>)}\n"
                       "ndi, 2000, Real, <r,ndireal,v,>\n"
                       "ndi_format, 00, Weird, <r,ndireal,v,>\n");
    HexByteString data;
    for (int i = 0; i < 20; ++i)
        data = HexByteString(QString("10 00")) + HexByteString(uint8_t(data.byteCount())) + data;
    const NvDecodedMessage loop = structures.decode(0x36, data);
    QVERIFY(!loop.text.isEmpty());
    QCOMPARE(decodeText(structures, 0x36, "20 00 04 00 00 00 01"),
             QString("{(Item: Real (Weird, ?), Size: 4, <bad size>)}"));
}

void TestMessagesStructure::editorWritesFieldsBack()
{
    const NvMessagesStructure structures = structuresFrom(
        "mid, 01, Edit, (<2,uint16,count,Count>,<4,fp1220,value,Value>,<4,ascii,name,Name>)\n"
        "mid, 02, Broken, (<2,uint16,count,Count>\n");
    const NvMessageStructure* entry = nullptr;
    QVERIFY(structures.getMIDStructure(HexByteString(uint8_t(1)), entry));

    QWidget parent;
    auto* editor = qobject_cast<NvMessageDataEditor*>(entry->generateEditWidget(
        &parent, structures, HexByteString(QString("00 05 00 10 00 00 41 42 00 00"))));
    QVERIFY(editor);
    QSignalSpy edited(editor, &NvMessageDataEditor::dataEdited);

    auto* value = editor->findChild<QLineEdit*>("value");
    QVERIFY(value);
    QCOMPARE(value->text(), QString("1"));
    QCOMPARE(value->toolTip(), QString("Fp1220"));
    value->setText("-0.5");
    emit value->editingFinished();
    QCOMPARE(edited.count(), 1);
    QCOMPARE(editor->data().toString(), QString("00 05 FF F8 00 00 41 42 00 00"));

    auto* name = editor->findChild<QLineEdit*>("name");
    QVERIFY(name);
    QCOMPARE(name->text(), QString("AB"));
    name->setText("KV");
    emit name->editingFinished();
    QCOMPARE(editor->data().toString(), QString("00 05 FF F8 00 00 4B 56 00 00"));

    // A value that does not fit is refused and the field shows the old value again.
    auto* count = editor->findChild<QLineEdit*>("count");
    QVERIFY(count);
    count->setText("70000");
    emit count->editingFinished();
    QCOMPARE(count->text(), QString("5"));
    QCOMPARE(edited.count(), 2);

    QVERIFY(structures.getMIDStructure(HexByteString(uint8_t(2)), entry));
    QVERIFY(!entry->generateEditWidget(&parent, structures, HexByteString(QString("00 01"))));

    // A field whose type is a table offers the table's entries.
    NvMessagesStructure shipped;
    QVERIFY(shipped.read());
    const NvMessageStructure* rate = shipped.findByName("mid", "BaudRate");
    QVERIFY(rate);
    auto* rateEditor = qobject_cast<NvMessageDataEditor*>(
        rate->generateEditWidget(&parent, shipped, HexByteString(uint8_t(0x09))));
    QVERIFY(rateEditor);
    auto* combo = rateEditor->findChild<QComboBox*>("baudrate");
    QVERIFY(combo);
    QCOMPARE(combo->currentText(), QString("115200"));
    const int fastest = combo->findText("921600");
    QVERIFY(fastest >= 0);
    combo->setCurrentIndex(fastest);
    emit combo->activated(fastest);
    QCOMPARE(rateEditor->data(), HexByteString(uint8_t(0x0C)));
}

void TestMessagesStructure::editorEditsDataItemValues()
{
    NvMessagesStructure structures;
    QVERIFY(structures.read());
    const NvMessageStructure* packet = structures.findByName("mid", "DataPacket");
    QVERIFY(packet);
    QCOMPARE(packet->listEntryText(), QString("DataPacket (MID: 36)"));

    // Packet counter 7, acceleration in fixed 12.20 (1, 2, 3).
    const HexByteString data(
        QString("10 20 02 00 07  40 21 0C  00 10 00 00 00 20 00 00 00 30 00 00"));
    QWidget parent;
    auto* editor =
        qobject_cast<NvMessageDataEditor*>(packet->generateEditWidget(&parent, structures, data));
    QVERIFY(editor);
    auto* y = editor->findChild<QLineEdit*>("y");
    QVERIFY(y);
    QCOMPARE(y->text(), QString("2"));
    QCOMPARE(y->toolTip(), QString("NDI Real"));
    y->setText("-1.5");
    emit y->editingFinished();
    QCOMPARE(editor->data().subString(8).toString(),
             QString("00 10 00 00 FF E8 00 00 00 30 00 00"));
    auto* counter = editor->findChild<QLineEdit*>("counter");
    QVERIFY(counter);
    counter->setText("513");
    emit counter->editingFinished();
    QCOMPARE(editor->data().subString(0, 5).toString(), QString("10 20 02 02 01"));
    QCOMPARE(structures.decode(0x36, editor->data()).text,
             QString("{(Item: Packet Counter, Size: 2, Data: 513), (Item: Acceleration (Fp1220, "
                     "ENU), Size: 12, Data: (x: 1, y: -1.5, z: 3))}"));
}

void TestMessagesStructure::frameCorrection()
{
    QCOMPARE(corrected("FA").toString(), QString("FA FF 30 00 D1"));
    QCOMPARE(corrected("").toString(), QString("FA FF 30 00 D1"));
    QCOMPARE(corrected("FA FF 10").toString(), QString("FA FF 10 00 F1"));
    QCOMPARE(corrected("00 FF 10 00 00").toString(), QString("FA FF 10 00 F1"));
    QCOMPARE(NvMessageModel::goToConfigFrame(), corrected("FA FF 30"));
    QCOMPARE(NvMessageModel::goToMeasurementFrame(), corrected("FA FF 10"));
    // The announced length rules: data padded, and a wrong checksum replaced.
    QCOMPARE(corrected("FA 01 84 02 12").toString(), QString("FA 01 84 02 12 00 67"));
    QCOMPARE(corrected("FA 01 84 02 12 34 00 00").toString(), QString("FA 01 84 02 12 34 33"));

    // An extended length above 2048 is cut to 2048.
    const HexByteString longFrame = corrected("FA FF 36 FF 09 00");
    QCOMPARE(longFrame.byteCount(), size_t(6 + 2048 + 1));
    QCOMPARE(longFrame.subString(3, 3).toString(), QString("FF 08 00"));
    NvFrameCheck check;
    const HexByteString::Bytes& bytes = longFrame.toIntegers();
    NvMessage::fromFrame(bytes.data(), bytes.size(), &check);
    QCOMPARE(int(check), int(NvFrameCheck::Ok));

    // Data set from outside switches the length form as the size needs.
    HexByteString frame(QString("FA FF C0 00"));
    NvMessageModel::setMessageData(frame, HexByteString::fromZeroes(255));
    QCOMPARE(frame.subString(0, 6).toString(), QString("FA FF C0 FF 00 FF"));
    QCOMPARE(NvMessageModel::messageData(frame).byteCount(), size_t(255));
    QCOMPARE(frame.byteCount(), size_t(6 + 255 + 1));
    NvMessageModel::setMessageData(frame, HexByteString::fromZeroes(3000));
    QCOMPARE(NvMessageModel::messageData(frame).byteCount(), size_t(2048));
    NvMessageModel::setMessageData(frame, HexByteString(QString("10 20 FF FF")));
    QCOMPARE(frame.toString(), QString("FA FF C0 04 10 20 FF FF 0F"));
    const HexByteString::Bytes& small = frame.toIntegers();
    QVERIFY(NvMessage::fromFrame(small.data(), small.size()).isValid());
}

void TestMessagesStructure::missingFileLeavesTheDatabaseEmpty()
{
    QTemporaryDir dir;
    NvMessagesStructure structures;
    QVERIFY(!structures.read(dir.filePath("none.txt")));
    QVERIFY(structures.isEmpty());
    QCOMPARE(structures.decode(0x30, HexByteString(QString("01"))).text, QString("01"));
}

QTEST_MAIN(TestMessagesStructure)
#include "tst_messagesstructure.moc"
