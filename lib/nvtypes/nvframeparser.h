#pragma once

// Cuts a byte stream into Nbus frames.
//
// Bytes may arrive in any chunking. Bytes before or between frames are skipped by
// searching for the next preamble. A candidate frame is rejected when its declared data
// length exceeds 2048 or its checksum is wrong; the search then resumes at the byte after
// the rejected preamble, so a stray 0xFA in garbage never swallows a real frame behind
// it. A frame that lies wholly inside the caller's chunk is handed out in place (no
// copy); only a frame split across chunks is assembled in the parser's own buffer.
//
// Not thread-safe: one parser per stream, fed from one thread; a callback must not feed
// the parser that calls it.

#include "nvexport.h"
#include "nvmessage.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

// One complete, checksum-verified frame. The pointers are valid only during the call
// that hands the view out.
struct NvFrameView
{
    const uint8_t* frame = nullptr;
    size_t size = 0;
    size_t headerSize = 4;

    uint8_t busId() const { return frame[1]; }
    uint8_t messageId() const { return frame[2]; }
    const uint8_t* data() const { return frame + headerSize; }
    size_t dataSize() const { return size - headerSize - 1; }
    // A copy that outlives the call.
    NvMessage toMessage() const { return NvMessage::fromFrame(frame, size); }
};

class NV_API NvFrameParser
{
public:
    struct Counters
    {
        uint64_t frames = 0;         // frames handed out
        uint64_t checksumErrors = 0; // candidates dropped for their checksum
        uint64_t oversizeFrames = 0; // candidates dropped for a length above 2048
        uint64_t skippedBytes = 0;   // bytes that belonged to no frame (rejected preambles too)
    };

    NvFrameParser();

    // Frames complete in `data` are handed to `onFrame(const NvFrameView&)`, in stream
    // order. A trailing partial frame is kept until the next call.
    template <typename OnFrame>
    void feed(const uint8_t* data, size_t size, OnFrame&& onFrame)
    {
        feedImpl(data, size, Sink{&onFrame, &invokeFrame<std::remove_reference_t<OnFrame>>},
                 SkipSink{});
    }
    // As above; skipped bytes are also handed, in runs, to
    // `onSkipped(const uint8_t* bytes, size_t count)` (string output detection).
    template <typename OnFrame, typename OnSkipped>
    void feed(const uint8_t* data, size_t size, OnFrame&& onFrame, OnSkipped&& onSkipped)
    {
        feedImpl(data, size, Sink{&onFrame, &invokeFrame<std::remove_reference_t<OnFrame>>},
                 SkipSink{&onSkipped, &invokeSkip<std::remove_reference_t<OnSkipped>>});
    }

    // Drops a partial frame and resets the counters.
    void reset();
    // Drops a partial frame, counting its bytes as skipped (end of stream, port closed).
    void flush();
    const Counters& counters() const { return m_counters; }
    // Bytes of a partial frame held until more arrive.
    size_t pendingBytes() const { return m_pending.size(); }

private:
    struct Sink
    {
        void* context;
        void (*call)(void*, const NvFrameView&);
    };
    struct SkipSink
    {
        void* context = nullptr;
        void (*call)(void*, const uint8_t*, size_t) = nullptr;
    };
    template <typename F>
    static void invokeFrame(void* context, const NvFrameView& view)
    {
        (*static_cast<F*>(context))(view);
    }
    template <typename F>
    static void invokeSkip(void* context, const uint8_t* bytes, size_t count)
    {
        (*static_cast<F*>(context))(bytes, count);
    }

    void feedImpl(const uint8_t* data, size_t size, Sink sink, SkipSink skip);
    // Scans a contiguous range; a partial frame at its end goes to m_pending.
    void scan(const uint8_t* p, size_t n, Sink sink, SkipSink skip);
    void skipped(const uint8_t* p, size_t n, SkipSink skip);

    std::vector<uint8_t> m_pending; // a frame begun in an earlier chunk (starts with 0xFA)
    std::vector<uint8_t> m_rescan;  // bytes after a rejected preamble of m_pending
    Counters m_counters;
};
