#include "syncnamedatabase.h"

#include "nvenums.h"

#include <QCoreApplication>

namespace {

struct Entry
{
    int value;
    const char* text;
};

const Entry lineTable[] = {
    {NSL_IN1, QT_TRANSLATE_NOOP("Synchronization line", "In 1")},
    {NSL_IN2, QT_TRANSLATE_NOOP("Synchronization line", "In 2")},
    {NSL_IN3, QT_TRANSLATE_NOOP("Synchronization line", "In 3")},
    {NSL_BIDIRECTIONAL1_IN, QT_TRANSLATE_NOOP("Synchronization line", "Bidirectional 1 <- In")},
    {NSL_CLOCK_IN, QT_TRANSLATE_NOOP("Synchronization line", "Clock In")},
    {NSL_CTS_IN, QT_TRANSLATE_NOOP("Synchronization line", "CTS In")},
    {NSL_GNSS_CLOCK_IN, QT_TRANSLATE_NOOP("Synchronization line", "GNSS Clock In")},
    {NSL_REQ_DATA, QT_TRANSLATE_NOOP("Synchronization line", "ReqData Message")},
    {NSL_GNSS_1PPS, QT_TRANSLATE_NOOP("Synchronization line", "GNSS 1PPS")},
    {NSL_OUT1, QT_TRANSLATE_NOOP("Synchronization line", "Out 1")},
    {NSL_OUT2, QT_TRANSLATE_NOOP("Synchronization line", "Out 2")},
    {NSL_SYNC_OUT, QT_TRANSLATE_NOOP("Synchronization line", "Sync Out")},
    {NSL_RTS_OUT, QT_TRANSLATE_NOOP("Synchronization line", "RTS Out")},
    {NSL_NONE, QT_TRANSLATE_NOOP("Synchronization line", "None")},
};

const Entry functionTable[] = {
    {NSF_START_RECORDING_IN, QT_TRANSLATE_NOOP("Synchronization function", "Start Recording (In)")},
    {NSF_STOP_RECORDING_IN, QT_TRANSLATE_NOOP("Synchronization function", "Stop Recording (In)")},
    {NSF_RESET_TIMER, QT_TRANSLATE_NOOP("Synchronization function", "Reset Timer (In)")},
    {NSF_TRIGGER_INDICATION,
     QT_TRANSLATE_NOOP("Synchronization function", "Trigger Indication (In)")},
    {NSF_INTERVAL_TRANSITION_MEASUREMENT,
     QT_TRANSLATE_NOOP("Synchronization function", "Interval Transition Measurement (Out)")},
    {NSF_INTERVAL_TRANSITION_RECORDING,
     QT_TRANSLATE_NOOP("Synchronization function", "Interval Transition Recording (Out)")},
    {NSF_GO_TO_OPERATIONAL,
     QT_TRANSLATE_NOOP("Synchronization function", "Go to Operational (Out)")},
    {NSF_SAMPLE_AND_SEND, QT_TRANSLATE_NOOP("Synchronization function", "Sample and Send (In)")},
    {NSF_SEND_LATEST, QT_TRANSLATE_NOOP("Synchronization function", "Send Latest (In)")},
    {NSF_CLOCK_BIAS_ESTIMATION,
     QT_TRANSLATE_NOOP("Synchronization function", "Clock Bias Estimation (In)")},
    {NSF_PULSE_WIDTH_MODULATION,
     QT_TRANSLATE_NOOP("Synchronization function", "Pulse With Modulation (Out)")},
    {NSF_START_SAMPLING, QT_TRANSLATE_NOOP("Synchronization function", "Start Sampling (In)")},
    {NSF_START_RECORDING_OUT,
     QT_TRANSLATE_NOOP("Synchronization function", "Start Recording (Out)")},
    {NSF_STOP_RECORDING_OUT, QT_TRANSLATE_NOOP("Synchronization function", "Stop Recording (Out)")},
    {NSF_TIME_PULSE, QT_TRANSLATE_NOOP("Synchronization function", "1PPS Time-pulse")},
    {NSF_NONE, QT_TRANSLATE_NOOP("Synchronization function", "None")},
};

const Entry polarityTable[] = {
    {NSP_RISING_EDGE, QT_TRANSLATE_NOOP("Synchronization line polarity", "Rising Edge")},
    {NSP_FALLING_EDGE, QT_TRANSLATE_NOOP("Synchronization line polarity", "Falling Edge")},
    {NSP_BOTH_EDGES, QT_TRANSLATE_NOOP("Synchronization line polarity", "Falling & Rising Edge")},
};

template <size_t N>
QMap<int, QString> translated(const Entry (&table)[N], const char* context)
{
    QMap<int, QString> map;
    for (const Entry& e : table)
        map.insert(e.value, QCoreApplication::translate(context, e.text));
    return map;
}

} // namespace

SyncNameDatabase::SyncNameDatabase()
    : m_lines(translated(lineTable, "Synchronization line")),
      m_functions(translated(functionTable, "Synchronization function")),
      m_polarities(translated(polarityTable, "Synchronization line polarity")),
      m_unknown(QCoreApplication::translate("Synchronization line", "Unknown"))
{
}

QString SyncNameDatabase::lineName(int line) const
{
    return m_lines.value(line, m_unknown);
}

QString SyncNameDatabase::functionName(int function) const
{
    return m_functions.value(function, m_unknown);
}

QString SyncNameDatabase::polarityName(int polarity) const
{
    return m_polarities.value(polarity, m_unknown);
}

bool SyncNameDatabase::isInput(int line)
{
    return line <= NSL_GNSS_1PPS;
}
