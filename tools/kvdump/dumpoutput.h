#pragma once

// One line per frame, as text or as a JSON object, decoded with the message database.
// Knows nothing about where the frames come from: the readers in main.cpp feed it.

#include "nvmessagesstructure.h"

#include <QSet>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct DumpOptions
{
    bool raw = false;
    bool json = false;
    QSet<QString> filters; // lower-case message names; empty keeps everything
    uint64_t count = 0;    // frames to print, 0: no limit
};

struct DumpFrame
{
    uint64_t timeNs = 0; // host UTC; 0 when the source has no time
    char dir = '<';      // '>' host to device, '<' device to host, '-' neither (file frames)
    const uint8_t* frame = nullptr;
    size_t size = 0; // the whole frame, preamble to checksum
};

class FrameDumper
{
public:
    FrameDumper(const NvMessagesStructure& database, DumpOptions options);

    // In a kvb, bus 0 carries the file's own frames (Header, TimeMark, End), shown with
    // direction '-'.
    void setKvb(bool kvb) { m_kvb = kvb; }

    // Prints one frame (checksum checked here); false once --count frames were printed.
    bool frame(const DumpFrame& frame);
    // One NMEA sentence of an nm file, without its line end.
    bool sentence(const std::string& text, bool checksumOk);
    // Bytes that belong to no frame, in whole runs (between two frames). A frame whose
    // checksum fails, right before the next frame, is printed as a frame with the reason
    // rather than counted as garbage.
    void skipped(uint64_t timeNs, const uint8_t* bytes, size_t size);

    bool done() const { return m_options.count && m_printed >= m_options.count; }
    uint64_t printed() const { return m_printed; }
    uint64_t frames() const { return m_frames; }
    uint64_t errors() const { return m_errors; }
    uint64_t skippedBytes() const { return m_skipped; }

    // The names --filter may use for frames: every message of the database and the file
    // frames, lower case.
    static QSet<QString> knownNames(const NvMessagesStructure& database);
    static QString formatTime(uint64_t ns);

private:
    struct Field
    {
        QString name;
        QString text; // as shown
        QVariant value;
    };
    bool keep(const QString& name) const;
    void appendFields(const NvDecodedMessage& decoded, std::vector<Field>& fields);
    void decodeFileFrame(uint8_t mid, const uint8_t* data, size_t size, QString& name,
                         std::vector<Field>& fields, QString& error) const;
    void print(uint64_t timeNs, char dir, int bus, int mid, const QString& name, size_t length,
               const std::vector<Field>& fields, const QString& error, const uint8_t* bytes,
               size_t size);
    void skippedRun(uint64_t timeNs, const uint8_t* bytes, size_t size);

    const NvMessagesStructure& m_database;
    DumpOptions m_options;
    uint64_t m_printed = 0;
    uint64_t m_frames = 0;
    uint64_t m_errors = 0;
    uint64_t m_skipped = 0;
    bool m_kvb = false;
};
