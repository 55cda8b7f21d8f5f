#include "nvmessagemodel.h"

#include <nvmessage.h>

#include <algorithm>

namespace {

constexpr uint8_t kPreamble = 0xFA;
constexpr uint8_t kExtended = 0xFF;

} // namespace

size_t NvMessageModel::headerSize(const HexByteString& frame)
{
    return frame.byteCount() > 3 && frame.at(3) == kExtended ? 6 : 4;
}

HexByteString NvMessageModel::messageData(const HexByteString& frame)
{
    const size_t header = headerSize(frame);
    if (frame.byteCount() <= header + 1)
        return {};
    return frame.subString(header, frame.byteCount() - header - 1);
}

void NvMessageModel::correctMessage(HexByteString& frame)
{
    HexByteString::Bytes bytes = frame.toIntegers();
    if (bytes.size() < 3)
        bytes = {kPreamble, NvMessage::BusIdDevice, 0x30};
    if (bytes.size() == 3)
        bytes.push_back(0x00);
    bytes[0] = kPreamble;

    size_t header = 4;
    size_t length = bytes[3];
    if (bytes[3] == kExtended) {
        header = 6;
        if (bytes.size() < header)
            bytes.resize(header, 0);
        length = size_t(bytes[4]) << 8 | bytes[5];
        if (length > MaxDataSize) {
            length = MaxDataSize;
            bytes[4] = uint8_t(length >> 8);
            bytes[5] = uint8_t(length);
        }
    }
    bytes.resize(header + length + 1, 0);
    frame.setIntegers(bytes);
    generateMessage(frame);
}

void NvMessageModel::setMessageData(HexByteString& frame, const HexByteString& data)
{
    correctMessage(frame);
    HexByteString::Bytes bytes = frame.toIntegers();
    HexByteString::Bytes payload = data.toIntegers();
    if (payload.size() > MaxDataSize)
        payload.resize(MaxDataSize);

    // Writers use the extended form exactly for 255..2048 data bytes.
    HexByteString::Bytes head(bytes.begin(), bytes.begin() + 4);
    if (payload.size() >= 255) {
        head[3] = kExtended;
        head.push_back(uint8_t(payload.size() >> 8));
        head.push_back(uint8_t(payload.size()));
    } else {
        head[3] = uint8_t(payload.size());
    }
    head.insert(head.end(), payload.begin(), payload.end());
    head.push_back(0);
    frame.setIntegers(head);
    generateMessage(frame);
}

void NvMessageModel::generateMessage(HexByteString& frame)
{
    HexByteString::Bytes bytes = frame.toIntegers();
    if (bytes.size() < NvMessage::MinFrameSize)
        return;
    const NvMessage message = NvMessage::fromFrame(bytes.data(), bytes.size());
    if (message.isValid())
        return;
    bytes.back() = NvMessage::computeChecksum(bytes.data(), bytes.size() - 1);
    frame.setIntegers(bytes);
}
