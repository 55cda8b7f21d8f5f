#pragma once

// Nbus frame rules for messages assembled or corrected by hand: a frame typed into an edit
// field is brought into a shape the device library accepts (preamble, length form, data
// within 2048 bytes, checksum).

#include "hexbytestring.h"

class NvMessageModel
{
public:
    static constexpr size_t MaxDataSize = 2048;

    // Go to configuration and go to measurement, addressed to the device on the port.
    static HexByteString goToConfigFrame()
    {
        return HexByteString(QStringLiteral("FA FF 30 00 D1"));
    }
    static HexByteString goToMeasurementFrame()
    {
        return HexByteString(QStringLiteral("FA FF 10 00 F1"));
    }

    // Preamble, a complete header, the data as long as the header announces (at most 2048
    // bytes, padded with zeros or cut) and the checksum. Fewer than three bytes become
    // "FA FF 30", three get a zero length byte.
    static void correctMessage(HexByteString& frame);
    // Replaces the data part (cut at 2048 bytes), switching between the short and the
    // extended length form as the size needs, and corrects the frame.
    static void setMessageData(HexByteString& frame, const HexByteString& data);
    // Recomputes the last byte as the checksum when it is not right.
    static void generateMessage(HexByteString& frame);

    // The parts of a corrected frame.
    static size_t headerSize(const HexByteString& frame);
    static HexByteString messageData(const HexByteString& frame);
};
