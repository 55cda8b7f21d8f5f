#include "nvframeparser.h"

#include "nvdetail.h"

#include <algorithm>
#include <cstring>

namespace {
constexpr uint8_t kPreamble = NvMessage::Preamble;
constexpr size_t kMaxData = NvMessage::MaxDataSize;
} // namespace

NvFrameParser::NvFrameParser()
{
    m_pending.reserve(NvMessage::MaxFrameSize);
}

void NvFrameParser::reset()
{
    m_pending.clear();
    m_counters = Counters();
}

void NvFrameParser::flush()
{
    m_counters.skippedBytes += m_pending.size();
    m_pending.clear();
}

void NvFrameParser::skipped(const uint8_t* p, size_t n, SkipSink skip)
{
    if (n == 0)
        return;
    m_counters.skippedBytes += n;
    if (skip.call)
        skip.call(skip.context, p, n);
}

void NvFrameParser::scan(const uint8_t* p, size_t n, Sink sink, SkipSink skip)
{
    const uint8_t* const end = p + n;
    while (p < end) {
        if (*p != kPreamble) {
            const void* found = std::memchr(p, kPreamble, size_t(end - p));
            if (!found) {
                skipped(p, size_t(end - p), skip);
                return;
            }
            const uint8_t* q = static_cast<const uint8_t*>(found);
            skipped(p, size_t(q - p), skip);
            p = q;
        }
        const size_t avail = size_t(end - p);
        if (avail < 4) {
            m_pending.assign(p, end);
            return;
        }
        size_t header = 4;
        size_t length = p[3];
        if (length == NvMessage::ExtendedLength) {
            if (avail < 6) {
                m_pending.assign(p, end);
                return;
            }
            header = 6;
            length = size_t(p[4]) << 8 | p[5];
            if (length > kMaxData) {
                ++m_counters.oversizeFrames;
                skipped(p, 1, skip);
                ++p;
                continue;
            }
        }
        const size_t total = header + length + 1;
        if (avail < total) {
            m_pending.assign(p, end);
            return;
        }
        if (nvdetail::byteSum(p + 1, total - 1) == 0) {
            ++m_counters.frames;
            sink.call(sink.context, NvFrameView{p, total, header});
            p += total;
        } else {
            ++m_counters.checksumErrors;
            skipped(p, 1, skip);
            ++p;
        }
    }
}

void NvFrameParser::feedImpl(const uint8_t* data, size_t size, Sink sink, SkipSink skip)
{
    // First finish a frame that an earlier chunk began.
    while (!m_pending.empty()) {
        const size_t have = m_pending.size();
        size_t need = 4;
        bool oversize = false;
        if (have >= 4) {
            if (m_pending[3] != NvMessage::ExtendedLength) {
                need = 4 + size_t(m_pending[3]) + 1;
            } else if (have < 6) {
                need = 6;
            } else {
                const size_t length = size_t(m_pending[4]) << 8 | m_pending[5];
                oversize = length > kMaxData;
                need = oversize ? 6 : 6 + length + 1;
            }
        }
        if (have < need) {
            if (size == 0)
                return;
            const size_t take = std::min(need - have, size);
            m_pending.insert(m_pending.end(), data, data + take);
            data += take;
            size -= take;
            continue;
        }
        const uint8_t* f = m_pending.data();
        if (!oversize && nvdetail::byteSum(f + 1, need - 1) == 0) {
            ++m_counters.frames;
            sink.call(sink.context,
                      NvFrameView{f, need, f[3] == NvMessage::ExtendedLength ? 6u : 4u});
            m_pending.clear();
            continue;
        }
        if (oversize)
            ++m_counters.oversizeFrames;
        else
            ++m_counters.checksumErrors;
        // Resynchronise from the byte after the rejected preamble; those bytes may hold a
        // frame (or the start of one) themselves.
        skipped(f, 1, skip);
        m_rescan.assign(f + 1, f + have);
        m_pending.clear();
        scan(m_rescan.data(), m_rescan.size(), sink, skip);
    }
    if (size)
        scan(data, size, sink, skip);
}
