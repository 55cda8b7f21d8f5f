// Every frame an emulated device sends, in configuration and in a short measurement with
// a rich output configuration, decodes with the shipped definitions: known name, every
// field filled, no parse-error, no-data or bad-size text.

#include "kvsimharness.h"
#include "nvmessagesstructure.h"

#include <nvenums.h>
#include <nvmessage.h>

#include <QtTest>

#include <memory>

using namespace std::chrono_literals;

namespace {

struct Item
{
    uint16_t id;
    uint16_t frequency;
};

NvByteArray outputConfiguration(const std::vector<Item>& items)
{
    NvByteArray data;
    for (const Item& item : items) {
        data.push_back(uint8_t(item.id >> 8));
        data.push_back(uint8_t(item.id));
        data.push_back(uint8_t(item.frequency >> 8));
        data.push_back(uint8_t(item.frequency));
    }
    return data;
}

// Items of every kind, in all four precisions and three frames.
std::vector<Item> itemsFor(const std::string& kind)
{
    const uint16_t every = NV_FREQUENCY_EVERY_PACKET;
    std::vector<Item> items = {
        {NDI_PACKET_COUNTER, every},
        {NDI_SAMPLE_TIME_FINE, every},
        {NDI_SAMPLE_TIME_COARSE, every},
        {NDI_STATUS_WORD, every},
        {NDI_STATUS_BYTE, every},
        {NDI_UTC_TIME, 100},
        {uint16_t(NDI_ACCELERATION | NDP_FP1632 | NCF_NED), 100},
        {uint16_t(NDI_RATE_OF_TURN | NDP_FP1220 | NCF_NWU), 100},
        {uint16_t(NDI_DELTA_Q | NDP_FLOAT64), 100},
        {uint16_t(NDI_DELTA_V | NDP_FLOAT32 | NCF_NED), 100},
        {uint16_t(NDI_MAGNETIC_FIELD | NDP_FP1220), 100},
        {uint16_t(NDI_TEMPERATURE | NDP_FLOAT64), 100},
        {NDI_BARO_PRESSURE, 50},
        {uint16_t(NDI_ACCELERATION_HR | NDP_FLOAT32), 400},
        {uint16_t(NDI_RATE_OF_TURN_HR | NDP_FP1632), 400},
    };
    if (kind != "imu") {
        items.push_back({uint16_t(NDI_QUATERNION | NDP_FP1632 | NCF_NED), 100});
        items.push_back({uint16_t(NDI_ROTATION_MATRIX | NDP_FLOAT32), 100});
        items.push_back({uint16_t(NDI_EULER_ANGLES | NDP_FLOAT64 | NCF_NWU), 100});
        items.push_back({uint16_t(NDI_FREE_ACCELERATION | NDP_FP1220), 100});
    }
    if (kind == "gnss") {
        items.push_back({uint16_t(NDI_LAT_LON | NDP_FP1632), 100});
        items.push_back({uint16_t(NDI_ALTITUDE_MSL | NDP_FLOAT64), 100});
        items.push_back({uint16_t(NDI_ALTITUDE_ELLIPSOID | NDP_FLOAT32), 100});
        items.push_back({uint16_t(NDI_POSITION_ECEF | NDP_FP1632), 100});
        items.push_back({uint16_t(NDI_VELOCITY | NDP_FP1220 | NCF_NED), 100});
        items.push_back({NDI_TIME_OF_WEEK, 100});
        items.push_back({NDI_GNSS_AGE, 100});
        items.push_back({NDI_GNSS_PVT_DATA, 4});
        items.push_back({NDI_GNSS_SAT_INFO, 4});
        items.push_back({NDI_GNSS_PVT_PULSE, 4});
    }
    return items;
}

} // namespace

class TestProtocolFrames : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void everyFrameDecodes_data();
    void everyFrameDecodes();

private:
    void checkDecodes(const NvMessage& message, const QString& context);

    std::unique_ptr<kvtest::KvsimProcess> m_sim;
    NvMessagesStructure m_structures;
};

void TestProtocolFrames::initTestCase()
{
    QVERIFY(m_structures.read());
    QVERIFY(m_structures.parseErrors().empty());
    m_sim = std::make_unique<kvtest::KvsimProcess>(std::vector<std::string>{
        "--quiet", "--device", "imu", "--device", "ahrs", "--device", "gnss"});
    QVERIFY2(m_sim->started(), m_sim->stderrText().c_str());
}

void TestProtocolFrames::cleanupTestCase()
{
    if (m_sim)
        m_sim->terminate();
    m_sim.reset();
}

void TestProtocolFrames::checkDecodes(const NvMessage& message, const QString& context)
{
    const NvDecodedMessage decoded = m_structures.decode(message);
    const QString where = QStringLiteral("%1: %2 -> %3")
                              .arg(context, QString::fromStdString(message.toHex()), decoded.text);
    QVERIFY2(decoded.known, qPrintable(where));
    QVERIFY2(!decoded.hasProblems, qPrintable(where));
    for (const char* bad : {"no data", "parse error", "bad size", "Unknown"})
        QVERIFY2(!decoded.text.contains(QLatin1String(bad)), qPrintable(where));
    if (message.dataSize() > 0) {
        QVERIFY2(!decoded.fields.empty(), qPrintable(where));
        size_t covered = 0;
        for (const NvDecodedField& field : decoded.fields)
            covered = std::max(covered, field.offset + field.bytes.byteCount());
        QVERIFY2(covered == message.dataSize(), qPrintable(where)); // nothing left unexplained
    }
}

void TestProtocolFrames::everyFrameDecodes_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("imu") << "imu";
    QTest::newRow("ahrs") << "ahrs";
    QTest::newRow("gnss") << "gnss";
}

void TestProtocolFrames::everyFrameDecodes()
{
    QFETCH(QString, kind);
    std::string path;
    for (const auto& port : m_sim->ports())
        if (port.kind == kind.toStdString())
            path = port.path;
    QVERIFY(!path.empty());
    kvtest::HostPort host(path);
    QVERIFY(host.isOpen());

    std::vector<NvMessage> frames;
    const auto ask = [&](uint8_t mid, const NvByteArray& data = {}) {
        const NvMessage reply = host.request(mid, data);
        frames.push_back(reply);
        return reply;
    };

    QCOMPARE(int(ask(NvMid::GoToConfig).messageId()), int(NvMid::GoToConfigAck));
    const std::vector<Item> items = itemsFor(kind.toStdString());
    const NvMessage applied = ask(NvMid::SetOutputConfiguration, outputConfiguration(items));
    QCOMPARE(int(applied.messageId()), int(NvMid::OutputConfiguration));
    // A sync line so that the settings reply lists something.
    const NvByteArray sync = {0, 3, 1, 0, 0, 0, 100, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0};
    QCOMPARE(int(ask(NvMid::SetSyncSettings, sync).messageId()), int(NvMid::SyncSettings));

    std::vector<std::pair<uint8_t, NvByteArray>> requests = {
        {NvMid::ReqDeviceId, {}},
        {NvMid::ReqProductCode, {}},
        {NvMid::ReqFirmwareRevision, {}},
        {NvMid::ReqHardwareVersion, {}},
        {NvMid::ReqBaudRate, {}},
        {NvMid::ReqErrorMode, {}},
        {NvMid::ReqOptionFlags, {}},
        {NvMid::ReqLocationId, {}},
        {NvMid::SetLocationId, {0x12, 0x34}},
        {NvMid::ReqSyncSettings, {}},
        {NvMid::ReqOutputConfiguration, {}},
        {NvMid::ReqStringOutputType, {}},
        {NvMid::ReqUtcTime, {}},
        {NvMid::ReqPortConfig, {}},
        {NvMid::ReqCalibrationRecord, {0x00, 0xFF}},
        {NvMid::SetNoRotation, {0x00, 0x05}},
    };
    if (kind != "imu") {
        requests.push_back({NvMid::ReqAvailableFilterProfiles, {}});
        requests.push_back({NvMid::ReqFilterProfile, {}});
    }
    if (kind == "gnss") {
        requests.push_back({NvMid::ReqGnssStatus, {}});
        requests.push_back({NvMid::ReqGnssPlatform, {}});
        requests.push_back({NvMid::ReqGnssLeverArm, {}});
    }
    for (const auto& request : requests)
        QVERIFY2(!ask(request.first, request.second).isEmpty(), nvMessageIdName(request.first));
    // A refused request: the Error frame decodes with its code's name.
    const NvMessage refused = ask(NvMid::SetBaudRate, {0x77});
    QCOMPARE(int(refused.messageId()), int(NvMid::Error));
    QCOMPARE(m_structures.decode(refused).text, QString("(Error: Invalid baud rate)"));

    host.packets().clear();
    QCOMPARE(int(ask(NvMid::GoToMeasurement).messageId()), int(NvMid::GoToMeasurementAck));
    host.collect(600ms, 120);
    ask(NvMid::GoToConfig);
    QVERIFY2(host.packets().size() >= 20, "a short measurement");

    for (const NvMessage& frame : frames)
        checkDecodes(frame, kind + " reply");

    // Each item shows up with its own name and values.
    bool sawSlowItems = false;
    for (const NvMessage& packet : host.packets()) {
        checkDecodes(packet, kind + " packet");
        const QString text = m_structures.decode(packet).text;
        QVERIFY(text.contains("Packet Counter"));
        if (kind == "gnss" && text.contains("GNSS PVT Data") &&
            text.contains("GNSS Satellite Info"))
            sawSlowItems = true;
    }
    if (kind == "gnss")
        QVERIFY(sawSlowItems);
}

QTEST_GUILESS_MAIN(TestProtocolFrames)
#include "tst_protocolframes.moc"
