#include "nvsyncsetting.h"

void NvSyncSetting::toWire(uint8_t* out) const
{
    out[0] = uint8_t(line);
    out[1] = uint8_t(function);
    out[2] = uint8_t(polarity);
    nvbe::writeU32(out + 3, pulseWidth);
    nvbe::writeI32(out + 7, offset);
    nvbe::writeU16(out + 11, skipFirst);
    nvbe::writeU16(out + 13, skipFactor);
    nvbe::writeU16(out + 15, clockPeriod);
    out[17] = triggerOnce;
}

NvSyncSetting NvSyncSetting::fromWire(const uint8_t* in)
{
    NvSyncSetting s;
    s.line = NvSyncLine(in[0]);
    s.function = NvSyncFunction(in[1]);
    s.polarity = NvSyncPolarity(in[2]);
    s.pulseWidth = nvbe::readU32(in + 3);
    s.offset = nvbe::readI32(in + 7);
    s.skipFirst = nvbe::readU16(in + 11);
    s.skipFactor = nvbe::readU16(in + 13);
    s.clockPeriod = nvbe::readU16(in + 15);
    s.triggerOnce = in[17];
    return s;
}

bool operator==(const NvSyncSetting& a, const NvSyncSetting& b)
{
    return a.line == b.line && a.function == b.function && a.polarity == b.polarity &&
           a.pulseWidth == b.pulseWidth && a.offset == b.offset && a.skipFirst == b.skipFirst &&
           a.skipFactor == b.skipFactor && a.clockPeriod == b.clockPeriod &&
           a.triggerOnce == b.triggerOnce;
}

NvByteArray nvSyncSettingsToWire(const NvSyncSettingArray& settings)
{
    NvByteArray out(settings.size() * NvSyncSetting::WireSize);
    for (size_t i = 0; i < settings.size(); ++i)
        settings[i].toWire(out.data() + i * NvSyncSetting::WireSize);
    return out;
}

bool nvSyncSettingsFromWire(const uint8_t* data, size_t size, NvSyncSettingArray& out)
{
    if (size % NvSyncSetting::WireSize != 0)
        return false;
    out.clear();
    for (size_t i = 0; i < size; i += NvSyncSetting::WireSize)
        out.push_back(NvSyncSetting::fromWire(data + i));
    return true;
}

const char* nvSyncLineName(int line)
{
    switch (line) {
    case NSL_IN1:
        return "In 1";
    case NSL_IN2:
        return "In 2";
    case NSL_IN3:
        return "In 3";
    case NSL_BIDIRECTIONAL1_IN:
        return "Bidirectional 1 <- In";
    case NSL_CLOCK_IN:
        return "Clock In";
    case NSL_CTS_IN:
        return "CTS In";
    case NSL_GNSS_CLOCK_IN:
        return "GNSS Clock In";
    case NSL_REQ_DATA:
        return "ReqData Message";
    case NSL_GNSS_1PPS:
        return "GNSS 1PPS";
    case NSL_OUT1:
        return "Out 1";
    case NSL_OUT2:
        return "Out 2";
    case NSL_SYNC_OUT:
        return "Sync Out";
    case NSL_RTS_OUT:
        return "RTS Out";
    case NSL_NONE:
        return "None";
    }
    return "Unknown";
}

const char* nvSyncFunctionName(int function)
{
    switch (function) {
    case NSF_START_RECORDING_IN:
        return "Start Recording (In)";
    case NSF_STOP_RECORDING_IN:
        return "Stop Recording (In)";
    case NSF_RESET_TIMER:
        return "Reset Timer (In)";
    case NSF_TRIGGER_INDICATION:
        return "Trigger Indication (In)";
    case NSF_INTERVAL_TRANSITION_MEASUREMENT:
        return "Interval Transition Measurement (Out)";
    case NSF_INTERVAL_TRANSITION_RECORDING:
        return "Interval Transition Recording (Out)";
    case NSF_GO_TO_OPERATIONAL:
        return "Go to Operational (Out)";
    case NSF_SAMPLE_AND_SEND:
        return "Sample and Send (In)";
    case NSF_SEND_LATEST:
        return "Send Latest (In)";
    case NSF_CLOCK_BIAS_ESTIMATION:
        return "Clock Bias Estimation (In)";
    case NSF_PULSE_WIDTH_MODULATION:
        return "Pulse With Modulation (Out)";
    case NSF_START_SAMPLING:
        return "Start Sampling (In)";
    case NSF_START_RECORDING_OUT:
        return "Start Recording (Out)";
    case NSF_STOP_RECORDING_OUT:
        return "Stop Recording (Out)";
    case NSF_TIME_PULSE:
        return "1PPS Time-pulse";
    case NSF_NONE:
        return "None";
    }
    return "Unknown";
}

const char* nvSyncPolarityName(int polarity)
{
    switch (polarity) {
    case NSP_RISING_EDGE:
        return "Rising Edge";
    case NSP_FALLING_EDGE:
        return "Falling Edge";
    case NSP_BOTH_EDGES:
        return "Falling & Rising Edge";
    }
    return "Unknown";
}
