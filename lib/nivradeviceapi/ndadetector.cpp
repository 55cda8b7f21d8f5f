#include "ndadetector.h"

namespace nda {

namespace {

constexpr uint8_t RtcmPreamble = 0xD3;
constexpr size_t MaxUnknownRun = 4096;

bool isPrintable(uint8_t c)
{
    return (c >= 0x20 && c < 0x7F) || c == '\t';
}

int hexValue(uint8_t c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

} // namespace

bool isValidNmeaSentence(const uint8_t* bytes, size_t count)
{
    while (count > 0 && (bytes[count - 1] == '\r' || bytes[count - 1] == '\n'))
        --count;
    if (count < 4 || bytes[0] != '$' || bytes[count - 3] != '*')
        return false;
    const int hi = hexValue(bytes[count - 2]), lo = hexValue(bytes[count - 1]);
    if (hi < 0 || lo < 0)
        return false;
    uint8_t sum = 0;
    for (size_t i = 1; i < count - 3; ++i)
        sum ^= bytes[i];
    return sum == uint8_t(hi * 16 + lo);
}

uint32_t rtcm3Crc24(const uint8_t* bytes, size_t count)
{
    uint32_t crc = 0;
    for (size_t i = 0; i < count; ++i) {
        crc ^= uint32_t(bytes[i]) << 16;
        for (int bit = 0; bit < 8; ++bit) {
            crc <<= 1;
            if (crc & 0x1000000)
                crc ^= 0x1864CFB;
        }
    }
    return crc & 0xFFFFFF;
}

void StreamDetector::emitUnknown(const Sink& sink)
{
    if (m_unknown.empty())
        return;
    m_unknownTotal += m_unknown.size();
    NvByteArray run;
    run.swap(m_unknown);
    sink(NPT_UNKNOWN, run);
}

void StreamDetector::finishLine(const Sink& sink)
{
    NvByteArray line;
    line.swap(m_current);
    m_mode = Mode::Search;
    size_t end = line.size();
    while (end > 0 && (line[end - 1] == '\r' || line[end - 1] == '\n'))
        --end;
    if (end == 0)
        return; // a bare line end between messages
    NvProtocolType type = NPT_TEXT;
    if (line[0] == '$')
        type = isValidNmeaSentence(line.data(), end) ? NPT_NMEA : NPT_UNKNOWN;
    if (type == NPT_UNKNOWN) {
        m_unknown.insert(m_unknown.end(), line.begin(), line.end());
        emitUnknown(sink);
        return;
    }
    emitUnknown(sink);
    sink(type, line);
}

void StreamDetector::finishRtcm(const Sink& sink)
{
    NvByteArray frame;
    frame.swap(m_current);
    m_mode = Mode::Search;
    const size_t body = frame.size() - 3;
    const uint32_t crc =
        (uint32_t(frame[body]) << 16) | (uint32_t(frame[body + 1]) << 8) | frame[body + 2];
    if (rtcm3Crc24(frame.data(), body) != crc) {
        m_unknown.insert(m_unknown.end(), frame.begin(), frame.end());
        return;
    }
    emitUnknown(sink);
    sink(NPT_RTCM3, frame);
}

void StreamDetector::feed(const uint8_t* bytes, size_t count, const Sink& sink)
{
    for (size_t i = 0; i < count; ++i) {
        const uint8_t c = bytes[i];
        switch (m_mode) {
        case Mode::Search:
            if (c == '$' || isPrintable(c)) {
                m_mode = Mode::Line;
                m_current.push_back(c);
            } else if (c == RtcmPreamble) {
                m_mode = Mode::Rtcm3;
                m_current.push_back(c);
                m_rtcmTotal = 0;
            } else if (c != '\r' && c != '\n') {
                m_unknown.push_back(c);
                if (m_unknown.size() >= MaxUnknownRun)
                    emitUnknown(sink);
            }
            break;
        case Mode::Line:
            if (c == '\n') {
                m_current.push_back(c);
                finishLine(sink);
            } else if (isPrintable(c) || c == '\r') {
                m_current.push_back(c);
                if (m_current.size() > MaxLine) {
                    m_unknown.insert(m_unknown.end(), m_current.begin(), m_current.end());
                    m_current.clear();
                    m_mode = Mode::Search;
                }
            } else {
                // Not a line after all: what was held is noise; look at this byte afresh.
                m_unknown.insert(m_unknown.end(), m_current.begin(), m_current.end());
                m_current.clear();
                m_mode = Mode::Search;
                --i;
            }
            break;
        case Mode::Rtcm3:
            m_current.push_back(c);
            if (m_current.size() == 2 && (c & 0xFC) != 0) {
                // Reserved bits set: not RTCM; the 0xD3 was noise.
                m_unknown.push_back(m_current[0]);
                m_current.clear();
                m_mode = Mode::Search;
                --i;
            } else if (m_current.size() == 3) {
                m_rtcmTotal = 3 + ((size_t(m_current[1] & 0x03) << 8) | m_current[2]) + 3;
            } else if (m_rtcmTotal != 0 && m_current.size() == m_rtcmTotal) {
                finishRtcm(sink);
            }
            break;
        }
    }
}

void StreamDetector::flush(const Sink& sink)
{
    if (m_mode == Mode::Line && !m_current.empty() && m_current[0] != '$') {
        // A prompt or banner without a line end is text all the same.
        emitUnknown(sink);
        NvByteArray line;
        line.swap(m_current);
        sink(NPT_TEXT, line);
    } else {
        m_unknown.insert(m_unknown.end(), m_current.begin(), m_current.end());
        m_current.clear();
    }
    m_mode = Mode::Search;
    emitUnknown(sink);
}

} // namespace nda
