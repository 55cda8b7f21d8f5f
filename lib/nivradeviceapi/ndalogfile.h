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
#include <cstring>
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
    TimeMark = 0xB1, // host UTC time: one per read batch, at most one per millisecond
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
// The data packets of one recording: those in its files, and those it took in that never
// got there (buffer full, a write error). Shared, so that they outlive the writer.
struct LogPacketCounts
{
    std::atomic<uint64_t> written{0};
    std::atomic<uint64_t> lost{0};
};

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
    // Data packets (DataPacket frames) of this recording; valid from create() on.
    std::shared_ptr<const LogPacketCounts> packetCounts() const { return m_packetCounts; }
    std::vector<std::string> parts() const; // the files made so far, in order

private:
    struct Device
    {
        std::vector<uint8_t> description; // frames with the file bus id
    };
    void run();
    bool writeBuffer(std::vector<uint8_t>& buffer, uint64_t appended, uint64_t packets);
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
    uint64_t m_bufferPackets = 0; // data packets in m_buffer
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
    size_t m_rangeKept = 0; // bytes of the last failed writeRange that stayed in the file
    std::shared_ptr<LogPacketCounts> m_packetCounts = std::make_shared<LogPacketCounts>();

    std::atomic<uint64_t> m_framesWritten{0};
    std::atomic<uint64_t> m_bytesWritten{0};
    std::atomic<uint64_t> m_dropped{0};
};

// Opens `path` for reading if it is a regular file: a FIFO, a folder or a device would
// block open() or read() forever, or read as something else. NRV_OK with the descriptor
// (close it) and the file's size; NRV_FILE_NOT_FOUND, NRV_NOT_A_REGULAR_FILE,
// NRV_FILE_READ_ERROR.
NvResultValue openRegularFile(const std::string& path, int* fd, uint64_t* size);
// Reads up to `size` bytes from the start of the regular file `path` into `out`; the
// count read (less at the end of the file), or -1 with the reason in `rc`.
long long readFileHead(const std::string& path, void* out, size_t size, NvResultValue* rc);

// Reads a kvb, bin or nm file. open() only identifies the file; load() indexes it (on a
// loader thread). The accessors are for after load() and may then be used from any
// number of threads.
//
// The file is mapped read-only, and the reader keeps nothing per packet but its offset
// (5 bytes). Where a file cannot be mapped it is read into memory instead. A mapping
// lives as long as the reader or a packet it handed out, whichever goes last.
class LogReader
{
public:
    enum class Type
    {
        Kvb,
        Bin,
        Nm
    };

    enum class Access
    {
        Map,  // map the file; read it where mapping fails
        Read, // read it into memory of our own
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

    // Identifies the file from its first bytes. NRV_OK; NRV_FILE_NOT_FOUND;
    // NRV_NOT_A_REGULAR_FILE (a folder, FIFO or device); NRV_FILE_READ_ERROR;
    // NRV_NOT_A_RECORDING (empty, or neither kvb, bin nor nm); NRV_FILE_DAMAGED (a kvb cut
    // inside its header frame); NRV_FILE_VERSION_UNSUPPORTED (a kvb of a newer format).
    NvResultValue open(const std::string& path);
    // The same for bytes in memory (copied); load() then reads no file.
    NvResultValue openMemory(const uint8_t* data, size_t size);
    // Parts of a split kvb that load() reads after the opened one, as one recording: each
    // device's packets run on across them. A part that is missing, not a regular file or
    // not the next part of this recording ends the recording before it.
    void setFollowingParts(std::vector<std::string> parts) { m_following = std::move(parts); }
    void setAccess(Access access) { m_access = access; }

    // Indexes the whole file (and its following parts). progress(done, total) is called at
    // least every 1 % of the bytes; `abort` is checked as often (NRV_ABORTED, nothing
    // kept). NRV_OK also for a file cut short or with garbage: what is whole is kept, the
    // rest counted. NRV_OUT_OF_MEMORY when neither the index nor a copy of the file fits.
    NvResultValue load(const std::function<void(uint64_t, uint64_t)>& progress = {},
                       const std::atomic<bool>* abort = nullptr);

    Type type() const { return m_type; }
    const std::string& path() const { return m_path; }
    const HeaderInfo& header() const { return m_header; } // kvb only, of the first part
    // A kvb's (last loaded part's) end frame was found: it was closed properly.
    bool isComplete() const { return m_complete; }
    // The end frame says the recording continues in the next part.
    bool continues() const { return m_continues; }
    // The other parts of a split recording after this one, in order (regular files that
    // carry the same recording id and the expected part numbers).
    std::vector<std::string> followingParts() const;
    // Parts loaded, the opened one included.
    size_t loadedParts() const { return m_parts.size(); }
    // Every loaded part is mapped (none had to be read into memory).
    bool isMapped() const;
    // Bytes the packet index takes: what loading costs beyond the mapping.
    size_t indexBytes() const;

    const std::vector<Device>& devices() const { return m_devices; }
    size_t packetCount(size_t device) const;
    // A device's packets in the order of their packet counters: the counter (16 bits)
    // unwrapped, so that packets a wireless tracker retransmitted after the recording
    // take their places; packets without a counter stay after the one before them.
    // Decoded in place: the packet shares the mapping and stays valid after the reader is
    // gone. The empty packet for an index out of range.
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

    uint64_t fileSize() const { return m_fileSize; }    // after load: of every loaded part
    uint64_t skippedBytes() const { return m_skipped; } // garbage between frames or lines
    uint64_t checksumErrors() const { return m_checksumErrors; }
    uint64_t truncatedBytes() const { return m_truncated; }    // frames cut at a part's end
    uint64_t unknownFrames() const { return m_unknownFrames; } // bus id of no device
    uint64_t frameCount() const { return m_frames; }           // whole frames (or sentences)

    // Frame offsets, 5 bytes each (parts up to 1 TiB together). Grows by realloc, which
    // moves large blocks by remapping rather than copying.
    class OffsetList
    {
    public:
        static constexpr size_t EntryBytes = 5;
        static constexpr uint64_t Limit = uint64_t(1) << 40;
        OffsetList() = default;
        OffsetList(OffsetList&& other) noexcept;
        OffsetList& operator=(OffsetList&& other) noexcept;
        OffsetList(const OffsetList&) = delete;
        OffsetList& operator=(const OffsetList&) = delete;
        ~OffsetList();

        void push(uint64_t offset) // throws std::bad_alloc
        {
            if (m_size == m_capacity)
                grow();
            set(m_size++, offset);
        }
        uint64_t operator[](size_t i) const
        {
            const uint8_t* p = m_data + i * EntryBytes;
            uint32_t low;
            std::memcpy(&low, p, 4);
            return low | uint64_t(p[4]) << 32;
        }
        void set(size_t i, uint64_t offset)
        {
            uint8_t* p = m_data + i * EntryBytes;
            const uint32_t low = uint32_t(offset);
            std::memcpy(p, &low, 4);
            p[4] = uint8_t(offset >> 32);
        }
        size_t size() const { return m_size; }
        size_t bytes() const { return m_capacity * EntryBytes; }
        void shrink();

    private:
        void grow();
        uint8_t* m_data = nullptr;
        size_t m_size = 0;
        size_t m_capacity = 0;
    };

private:
    // The bytes of one part: a read-only mapping of the file, or memory of our own (anonymous,
    // in huge pages where the system has them: a 1 GB copy then costs 500 page faults rather
    // than 250000). Shared with the packets handed out.
    class Bytes
    {
    public:
        Bytes() = default;
        Bytes(const Bytes&) = delete;
        Bytes& operator=(const Bytes&) = delete;
        ~Bytes() { reset(); }
        bool map(int fd, uint64_t size);
        bool allocate(uint64_t size);
        void reset();
        uint8_t* get() const { return m_data; }
        bool isMapping() const { return m_mapping; }

    private:
        void* m_map = nullptr;
        size_t m_mapSize = 0;
        uint8_t* m_data = nullptr;
        bool m_mapping = false;
    };
    struct Part
    {
        std::shared_ptr<Bytes> bytes;
        const uint8_t* data = nullptr; // the part's first byte
        uint64_t base = 0;             // offset of that byte in the recording
        uint64_t size = 0;
    };
    // Unwraps a device's packet counters into keys that sort its packets.
    class CounterOrder
    {
    public:
        // The key of the next packet in file order (its data items).
        int64_t next(const uint8_t* data, size_t size);

    private:
        int64_t resolve(int step, int64_t ticks) const;
        bool m_started = false;
        bool m_haveTime = false;
        uint16_t m_counter = 0;
        uint32_t m_time = 0;
        // The pace of the last ordinary step: counts per sample-time ticks (none yet: 0).
        int64_t m_refStep = 0, m_refTicks = 0;
        int64_t m_key = INT64_MIN; // before the first counter
    };
    struct DeviceIndex
    {
        OffsetList packets;             // frame offsets, in counter order once loaded
        std::vector<uint64_t> messages; // frame offsets
        uint32_t described = 0;         // the kinds of reply seen, one bit each
        CounterOrder order;
        int64_t lastKey = INT64_MIN;
        bool inOrder = true; // the keys never fell so far
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
    NvResultValue loadParts(const std::function<void(uint64_t, uint64_t)>& progress,
                            const std::atomic<bool>* abort);
    static uint64_t populate(const Part& part, uint64_t offset, uint64_t size, int fd);
    bool isNextPart(const uint8_t* data, uint64_t size, unsigned part) const;
    void indexSlice(Part& part, uint64_t& parsed, uint64_t end, bool last, NvFrameParser& parser);
    void onKvbFrame(uint64_t offset, const NvFrameView& view);
    void onBinFrame(uint64_t offset, const NvFrameView& view);
    void addPacket(DeviceIndex& index, uint64_t offset, const NvFrameView& view);
    void sortByCounter(DeviceIndex& index);
    void describe(Device& device, DeviceIndex& index, const NvFrameView& view);
    // Indexes the lines in [begin, end); returns where an unfinished line starts.
    uint64_t indexNm(uint64_t begin, uint64_t end, bool last);
    void onSentence(const char* sentence, size_t size);
    void finishEpoch();
    const Part& partOf(uint64_t offset) const;
    const uint8_t* at(uint64_t offset) const; // a byte of the recording
    const uint8_t* packetAt(uint64_t offset) const;

    std::string m_path;
    std::vector<std::string> m_following;
    Access m_access = Access::Map;
    bool m_fromMemory = false;
    bool m_loaded = false;
    Type m_type = Type::Bin;
    HeaderInfo m_header;
    bool m_complete = false;
    bool m_continues = false;
    uint64_t m_fileSize = 0;
    std::shared_ptr<Bytes> m_memory; // openMemory()'s copy
    uint64_t m_memorySize = 0;
    std::vector<Part> m_parts;
    std::vector<uint8_t> m_synth; // nm: the packets made from the sentences
    std::unique_ptr<logdetail::NmEpoch> m_epoch;
    std::vector<Device> m_devices;
    std::vector<DeviceIndex> m_index;
    uint16_t m_busToDevice[256];
    int m_binBusId = -1; // bin: bus id of the packets, -2 once they differ
    std::vector<TimeMark> m_timeMarks;
    std::vector<Span> m_sentences;
    uint64_t m_skipped = 0, m_checksumErrors = 0, m_truncated = 0, m_unknownFrames = 0;
    uint64_t m_frames = 0;
};

} // namespace nda
