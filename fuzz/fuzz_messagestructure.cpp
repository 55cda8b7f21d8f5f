// libFuzzer target: the message structure file parser and the decoder.
//
// The input is a definition file, a zero byte, then message data. The data is decoded
// against every entry the file defined (and against the message identifier its first byte
// names), corrected as a hand-made frame, and read as hex text.
//
// Oracles besides the sanitizers: decoded fields lie inside the data; a corrected frame is
// one whole, valid Nbus frame; the canonical hex text of a value parses back to it.

#include "hexbytestring.h"
#include "nvmessagemodel.h"
#include "nvmessagesstructure.h"

#include <nvmessage.h>

#include <QString>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

void checkDecoded(const NvDecodedMessage& decoded, const HexByteString& data)
{
    for (const NvDecodedField& field : decoded.fields)
        check(field.offset + field.bytes.byteCount() <= data.byteCount());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size)
{
    const uint8_t* zero = static_cast<const uint8_t*>(std::memchr(input, 0, size));
    const size_t textSize = zero ? size_t(zero - input) : size;
    const std::string text(reinterpret_cast<const char*>(input), textSize);
    // Messages carry at most 2048 data bytes; a little more exercises the frame cut.
    const size_t dataSize = zero ? std::min<size_t>(size - textSize - 1, 4096) : 0;
    const HexByteString data = zero ? HexByteString(zero + 1, dataSize) : HexByteString();

    NvMessagesStructure structures;
    std::istringstream stream(text);
    structures.read(stream);

    // Every entry of every table decodes the data; bounded so that large files stay quick.
    size_t budget = 64;
    for (const std::string& name : structures.tableNames()) {
        for (const auto& entry : *structures.table(name)) {
            if (budget-- == 0)
                break;
            std::ostringstream out;
            entry.second.generateHumanReadableString(structures, data, out);
            (void)structures.decodeData(name, entry.first, data);
        }
    }
    if (!data.isEmpty()) {
        const NvDecodedMessage decoded = structures.decode(data.at(0), data.subString(1));
        checkDecoded(decoded, data.subString(1));
    }

    // Frame correction always ends in a frame the device library accepts.
    HexByteString frame = data;
    NvMessageModel::correctMessage(frame);
    check(NvMessage::checkFrame(frame.toIntegers().data(), frame.byteCount()) == NvFrameCheck::Ok);
    NvMessageModel::setMessageData(frame, data);
    check(NvMessage::checkFrame(frame.toIntegers().data(), frame.byteCount()) == NvFrameCheck::Ok);

    // Hex text: the canonical form of whatever was typed parses back to the same value.
    HexByteString typed(
        QString::fromLatin1(text.data(), qsizetype(std::min<size_t>(text.size(), 4096))));
    const HexByteString again(typed.toString());
    check(again.toDenseString() == typed.toDenseString());
    typed.normalize();
    check(typed.isNormalized());
    check(HexByteString(typed.toString()) == typed);
    return 0;
}
