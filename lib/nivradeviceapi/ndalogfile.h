#pragma once

// Recording files: the kvb writer and the reader of kvb, bin and nm files (layout in
// docs/kvb-format.md). Internal to the device library; no Qt, no C interface here.

#include "nvdatapacket.h"
#include "nvdeviceid.h"
#include "nvenums.h"
#include "nvframeparser.h"
#include "nvmessage.h"
#include "nvoutputconfiguration.h"
#include "nvsyncsetting.h"
#include "nvversion.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace nda {

namespace logdetail {
struct NmEpoch;
}

// File-level frames of a kvb (bus id 0). Message ids from a range the protocol leaves free.
namespace LogMid {
enum : uint8_t
{
    Header = 0xB0,   // first frame of every part
    TimeMark = 0xB1, // host UTC time, at most every 100 ms while frames arrive
    End = 0xB2,      // last frame of a part that was closed properly
};
}

constexpr uint8_t LogFileBusId = 0;    // bus id of the file-level frames
constexpr uint8_t LogMaxDevices = 254; // device bus ids 1..254
constexpr uint8_t LogFormatVersion = 1;

// Part `part` (1, 2, ...) of a recording whose first part is `firstPart`: "rec.kvb",
// "rec-002.kvb", "rec-003.kvb", ... (at least three digits).
std::string logPartPath(const std::string& firstPart, unsigned part);

// Identities given to devices of files that do not describe them.
NvDeviceId logBinPlaceholderId(); // FFFF000000000001, "Unknown device"
NvDeviceId logNmPlaceholderId();  // 1770FFFF00000001, a KV-770 GNSS/INS

struct LogWriterOptions
{
    uint64_t splitBytes = 0; // start a new part before one grows past this (0: never)
    uint64_t splitMs = 0;    // start a new part when one is this old (0: never)
    unsigned syncMs = 1000;  // write and fdatasync at least this often
    // A disk slower than the data for long: frames that would buffer more are dropped.
    size_t maxBufferBytes = size_t(256) << 20;
};

// Writes one recording. append() is cheap and may be called from any thread: the frame
// is copied into a buffer under a short lock and a writer thread of its own does the I/O.
// A write error (disk full, file too large, I/O error) truncates the part back to its
// last whole frame, stops the recording and is reported once to the error handler.
class LogWriter
{
public:
    LogWriter();
    ~LogWriter(); // closes
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    // Creates (truncates) the file and starts the writer thread. NRV_OK,
    // NRV_OUTPUT_CANNOT_BE_OPENED, NRV_INVALID_STATE when already open.
    NvResultValue create(const std::string& path, const LogWriterOptions& options = {});
    // Describes a device: its replies as received (DeviceId, ProductCode, FirmwareRevision,
    // HardwareVersion, OutputConfiguration, SyncSettings, LocationId, FilterProfile; any
    // bus id). Returns its file bus id 1..254, or 0 when the file is full or not open.
    // Map each (port, bus id) source to its own call.
    uint8_t addDevice(const NvDeviceId& id, const std::vector<NvMessage>& description);
    // One received frame of a device, checksum as received (a bad one stays bad). Frames
    // that are not shaped like a frame, or for an unknown bus id, are dropped.
    void append(uint8_t fileBusId, const uint8_t* frame, size_t size);
    void append(uint8_t fileBusId, const NvMessage& message)
    {
        append(fileBusId, message.frame(), message.frameSize());
    }
    // Writes what is buffered, the end frame, fsyncs and closes. NRV_OK or the first error.
    NvResultValue close();

    // Called once, on the writer thread, when a write fails; set before create().
    void setErrorHandler(std::function<void(NvResultValue)> handler);

    bool isOpen() const;
    NvResultValue error() const;    // first write error, NRV_OK
    uint64_t framesWritten() const; // appended frames that reached the file
    uint64_t bytesWritten() const;  // every byte of every part
    uint64_t framesDropped() const; // malformed, unknown bus id, buffer full, after an error
    std::vector<std::string> parts() const; // the files made so far, in order

private:
    struct Device
    {
        std::vector<uint8_t> description; // frames with the file bus id
    };
    void run();
    bool writeBuffer(std::vector<uint8_t>& buffer, uint64_t appended);
    bool writeRange(const uint8_t* data, size_t size);
    bool openPart(unsigned part);
    bool finishPart(bool continues);
    void fail(int err);
    void putTimeMarkLocked(uint64_t nowMono);

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    // guarded by m_mutex
    std::vector<uint8_t> m_buffer;
    uint64_t m_bufferAppended = 0;
    std::vector<Device> m_devices;
    std::vector<std::string> m_parts;
    bool m_open = false;
    bool m_stop = false;
    bool m_failed = false;
    bool m_wakePending = false;
    uint64_t m_lastMark = 0; // monotonic ns of the last time mark
    NvResultValue m_error = NRV_OK;
    std::function<void(NvResultValue)> m_errorHandler;

    // writer thread only (and create/close around it)
    std::thread m_thread;
    LogWriterOptions m_options;
    std::string m_path;
    int m_fd = -1;
    unsigned m_part = 0;
    uint64_t m_partBytes = 0;
    bool m_partHasData = false;
    uint64_t m_partStartMono = 0;
    uint64_t m_recordingId = 0;
    uint64_t m_createdUtc = 0;
    std::vector<uint8_t> m_spare;

    std::atomic<uint64_t> m_framesWritten{0};
    std::atomic<uint64_t> m_bytesWritten{0};
    std::atomic<uint64_t> m_dropped{0};
};

// Reads a kvb, bin or nm file. open() only identifies the file; load() reads and indexes it
// (on a loader thread). The accessors are for after load() and may then be used from any
// number of threads.
class LogReader
{
public:
    enum class Type
    {
        Kvb,
        Bin,
        Nm
    };

    struct Device
    {
        NvDeviceId id;
        uint8_t busId = 0; // file bus id (kvb); bus id of its frames (bin)
        NvString productCode;
        NvVersion firmware, hardware;
        NvOutputConfigurationArray outputConfiguration;
        NvSyncSettingArray syncSettings;
        int locationId = -1;    // -1: not described
        int filterProfile = -1; // -1: not described
    };

    struct HeaderInfo
    {
        unsigned version = 0;
        unsigned part = 0; // 1 for the first
        uint64_t createdUtcNs = 0;
        uint64_t recordingId = 0; // the same in every part
        std::string writer;
    };

    LogReader();
    ~LogReader();
    LogReader(const LogReader&) = delete;
    LogReader& operator=(const LogReader&) = delete;

    // Identifies the file from its first bytes. NRV_OK; NRV_FILE_NOT_FOUND (missing or not
    // a regular file); NRV_FILE_READ_ERROR; NRV_NOT_A_RECORDING (empty, or neither kvb, bin
    // nor nm); NRV_FILE_DAMAGED (a kvb cut inside its header frame);
    // NRV_FILE_VERSION_UNSUPPORTED (a kvb of a newer format).
    NvResultValue open(const std::string& path);
    // The same for bytes in memory (copied); load() then reads no file.
    NvResultValue openMemory(const uint8_t* data, size_t size);

    // Reads and indexes the whole file. progress(done, total) is called at least every 1 %
    // of the file; `abort` is checked as often (NRV_ABORTED, nothing kept). NRV_OK also for
    // a file cut short or with garbage: what is whole is kept, the rest counted.
    NvResultValue load(const std::function<void(uint64_t, uint64_t)>& progress = {},
                       const std::atomic<bool>* abort = nullptr);

    Type type() const { return m_type; }
    const std::string& path() const { return m_path; }
    const HeaderInfo& header() const { return m_header; } // kvb only
    // A kvb's end frame was found: it was closed properly.
    bool isComplete() const { return m_complete; }
    // The end frame says the recording continues in the next part.
    bool continues() const { return m_continues; }
    // The other parts of a split recording after this one, in order (files that exist and
    // carry the same recording id and the expected part numbers).
    std::vector<std::string> followingParts() const;

    const std::vector<Device>& devices() const { return m_devices; }
    size_t packetCount(size_t device) const;
    // Decoded from the shared buffer; the empty packet for an index out of range.
    NvDataPacket packet(size_t device, size_t index) const;
    // The raw frame of a packet (nullptr/0 out of range), valid as long as the reader.
    const uint8_t* packetFrame(size_t device, size_t index, size_t* size) const;
    // Host UTC time (ns) of the last time mark before the packet; 0 when none.
    uint64_t packetHostTime(size_t device, size_t index) const;
    // Every other frame of a device (description replies, errors, ...), in file order.
    size_t messageCount(size_t device) const;
    NvMessage message(size_t device, size_t index) const;
    // nm files: every valid NMEA sentence, without its line end.
    size_t sentenceCount() const { return m_sentences.size(); }
    std::string sentence(size_t index) const;

    uint64_t fileSize() const { return m_fileSize; }
    uint64_t skippedBytes() const { return m_skipped; } // garbage between frames or lines
    uint64_t checksumErrors() const { return m_checksumErrors; }
    uint64_t truncatedBytes() const { return m_truncated; }    // a frame cut at the end
    uint64_t unknownFrames() const { return m_unknownFrames; } // bus id of no device
    uint64_t frameCount() const { return m_frames; }           // whole frames (or sentences)

private:
    struct DeviceIndex
    {
        std::vector<uint64_t> packets;  // frame offsets in packetBase()
        std::vector<uint64_t> messages; // frame offsets in m_data
        uint32_t described = 0;         // the kinds of reply seen, one bit each
    };
    struct TimeMark
    {
        uint64_t offset;
        uint64_t utcNs;
    };
    struct Span
    {
        uint64_t offset;
        uint32_t size;
    };
    NvResultValue sniff(const uint8_t* head, size_t size, uint64_t fileSize);
    void reset();
    void onKvbFrame(uint64_t offset, const NvFrameView& view);
    void onBinFrame(uint64_t offset, const NvFrameView& view);
    void describe(Device& device, DeviceIndex& index, const NvFrameView& view);
    // Indexes the lines in [begin, end); returns where an unfinished line starts.
    uint64_t indexNm(uint64_t begin, uint64_t end, bool last);
    void onSentence(const char* sentence, size_t size);
    void finishEpoch();
    const uint8_t* packetBase() const;

    std::string m_path;
    bool m_fromMemory = false;
    bool m_loaded = false;
    Type m_type = Type::Bin;
    HeaderInfo m_header;
    bool m_complete = false;
    bool m_continues = false;
    uint64_t m_fileSize = 0;
    // Anonymous memory in huge pages where the system has them: a 1 GB file then costs
    // 500 page faults rather than 250000.
    class Buffer
    {
    public:
        Buffer() = default;
        Buffer(const Buffer&) = delete;
        Buffer& operator=(const Buffer&) = delete;
        ~Buffer() { reset(); }
        bool allocate(uint64_t size);
        void reset();
        uint8_t* get() const { return m_data; }

    private:
        void* m_map = nullptr;
        size_t m_mapSize = 0;
        uint8_t* m_data = nullptr;
    };
    Buffer m_data; // the whole file; packets and messages point into it
    uint64_t m_dataSize = 0;
    std::vector<uint8_t> m_synth; // nm: the packets made from the sentences
    std::unique_ptr<logdetail::NmEpoch> m_epoch;
    std::vector<Device> m_devices;
    std::vector<DeviceIndex> m_index;
    uint16_t m_busToDevice[256];
    std::vector<TimeMark> m_timeMarks;
    std::vector<Span> m_sentences;
    uint64_t m_skipped = 0, m_checksumErrors = 0, m_truncated = 0, m_unknownFrames = 0;
    uint64_t m_frames = 0;
};

} // namespace nda
