// Packets that view their frame's bytes, copies that outlive the bytes, and the shared
// item index of each layout: right when layouts change from one packet to the next, for
// malformed packets, and from several threads at once.
#include "nvdatapacket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

struct Expected
{
    NvDataIdentifier id;
    size_t offset, size;
};

// The items of a packet's data as a plain walk finds them, and where the walk stopped.
std::vector<Expected> walk(const NvByteArray& data, size_t* stopped = nullptr)
{
    std::vector<Expected> items;
    size_t pos = 0;
    while (data.size() - pos >= 3 && data.size() - pos - 3 >= data[pos + 2]) {
        items.push_back({NvDataIdentifier(data[pos] << 8 | data[pos + 1]), pos + 3, data[pos + 2]});
        pos += 3 + data[pos + 2];
    }
    if (stopped)
        *stopped = pos;
    return items;
}

void expectIndex(const NvDataPacket& p, const NvByteArray& data)
{
    size_t stopped = 0;
    const std::vector<Expected> items = walk(data, &stopped);
    ASSERT_FALSE(p.isEmpty());
    ASSERT_EQ(p.dataSize(), data.size());
    EXPECT_EQ(NvByteArray(p.data(), p.data() + p.dataSize()), data);
    ASSERT_EQ(p.itemCount(), items.size());
    for (size_t i = 0; i < items.size(); ++i) {
        EXPECT_EQ(p.item(i).id, items[i].id) << "item " << i;
        EXPECT_EQ(p.item(i).offset, items[i].offset) << "item " << i;
        EXPECT_EQ(p.item(i).size, items[i].size) << "item " << i;
    }
    EXPECT_EQ(p.decodedSize(), stopped);
    EXPECT_EQ(p.isMalformed(), stopped != data.size());
}

NvByteArray frameOf(const NvByteArray& data, uint8_t busId = NvMessage::BusIdDevice)
{
    return NvMessage(busId, NvMid::DataPacket, data).frameBytes();
}

NvByteArray item(uint16_t id, const NvByteArray& payload)
{
    NvByteArray out{uint8_t(id >> 8), uint8_t(id), uint8_t(payload.size())};
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

NvByteArray concat(std::initializer_list<NvByteArray> parts)
{
    NvByteArray out;
    for (const NvByteArray& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

NvByteArray sample(uint16_t counter, NvDataIdentifier accelerationId = NDI_ACCELERATION)
{
    NvDataPacketBuilder b;
    b.setPacketCounter(counter);
    b.setSampleTimeFine(100u * counter);
    b.setVector3(accelerationId, {0.5, -1.25, 9.75});
    b.setQuaternion(NvQuaternion::fromEuler({10, 20, 30}));
    b.setStatusWord(3);
    return b.data();
}

} // namespace

TEST(NvPacketView, ReadsTheBytesInPlaceAndAgreesWithACopyingDecode)
{
    const NvByteArray frame = frameOf(sample(7));
    const NvDataPacket view = NvDataPacket::viewFrame(frame.data(), frame.size());
    const NvDataPacket owning = NvDataPacket::fromFrame(frame.data(), frame.size());
    EXPECT_TRUE(view.isBorrowed());
    EXPECT_FALSE(owning.isBorrowed());
    EXPECT_EQ(view.data(), frame.data() + 4);
    EXPECT_NE(owning.data(), frame.data() + 4);
    expectIndex(view, sample(7));
    EXPECT_EQ(view, owning);
    EXPECT_EQ(view.message().frameBytes(), frame);
    EXPECT_EQ(view.packetCounter(), 7);
    EXPECT_EQ(view.acceleration(), NvVector3(0.5, -1.25, 9.75));
    EXPECT_EQ(view.orientationQuaternion(), owning.orientationQuaternion());
    // Both decodes found the same index.
    EXPECT_EQ(&view.item(0), &owning.item(0));
}

TEST(NvPacketView, RefusesWhatIsNotShapedLikeAFrame)
{
    const NvByteArray frame = frameOf(sample(1));
    EXPECT_TRUE(NvDataPacket::viewFrame(nullptr, 10).isEmpty());
    EXPECT_TRUE(NvDataPacket::viewFrame(frame.data(), 4).isEmpty());
    NvByteArray noPreamble = frame;
    noPreamble[0] = 0x00;
    EXPECT_TRUE(NvDataPacket::viewFrame(noPreamble.data(), noPreamble.size()).isEmpty());
    const NvByteArray big(NvMessage::MaxFrameSize + 1, 0xFA);
    EXPECT_TRUE(NvDataPacket::viewFrame(big.data(), big.size()).isEmpty());
    EXPECT_FALSE(NvDataPacket::viewFrame(frame.data(), frame.size()).isEmpty());
}

TEST(NvPacketView, CopiesAndMovesOutliveTheBorrowedBuffer)
{
    auto buffer = std::make_unique<NvByteArray>(frameOf(sample(42), 3));
    std::vector<NvDataPacket> kept;
    NvDataPacket assigned;
    NvDataPacket moved;
    {
        const NvDataPacket view = NvDataPacket::viewFrame(buffer->data(), buffer->size());
        NvDataPacket other = NvDataPacket::viewFrame(buffer->data(), buffer->size());
        kept.push_back(view);
        assigned = view;
        moved = std::move(other);
        EXPECT_TRUE(other.isEmpty()); // what a move leaves behind
        kept.push_back(NvDataPacket::viewFrame(buffer->data(), buffer->size()));
    }
    // The reader's buffer is reused, then gone (ASan reports any packet still reading it).
    std::fill(buffer->begin(), buffer->end(), 0xEE);
    buffer.reset();
    kept.push_back(assigned);
    kept.push_back(moved);
    for (const NvDataPacket& p : kept) {
        EXPECT_FALSE(p.isBorrowed());
        expectIndex(p, sample(42));
        EXPECT_EQ(p.busId(), 3);
        EXPECT_EQ(p.packetCounter(), 42);
        EXPECT_EQ(p.acceleration(), NvVector3(0.5, -1.25, 9.75));
        EXPECT_EQ(p.message().frameBytes(), frameOf(sample(42), 3));
    }
}

TEST(NvPacketView, AnOwnerKeepsTheBytesForEveryCopy)
{
    auto recording = std::make_shared<NvByteArray>(frameOf(sample(5)));
    const uint8_t* frame = recording->data();
    const size_t size = recording->size();
    const NvDataPacket view = NvDataPacket::viewFrame(frame, size, recording);
    recording.reset();
    const NvDataPacket copy = view;
    EXPECT_FALSE(copy.isBorrowed());
    EXPECT_EQ(copy.data(), view.data()); // shared, not copied
    expectIndex(copy, sample(5));
    // Without an owner the view borrows.
    EXPECT_TRUE(NvDataPacket::viewFrame(frame, size, nullptr).isBorrowed());
}

TEST(NvPacketView, APacketOfAMessageSharesItsBytes)
{
    const NvMessage m(9, NvMid::DataPacket, sample(3));
    const NvDataPacket p(m);
    EXPECT_EQ(p.data(), m.data());
    EXPECT_EQ(p.message(), m);
    expectIndex(p, sample(3));
}

TEST(NvPacketLayouts, TheIndexFollowsEachPacketWhenLayoutsChange)
{
    NvDataPacket::clearLayoutCache();
    const NvByteArray a = sample(1);
    // The same identifiers at other sizes (the device reconfigured to float64), an item
    // more, the same data size with other identifiers, the items in another order.
    const NvByteArray wider = sample(2, nvWithPrecision(NDI_ACCELERATION, NDP_FLOAT64));
    NvByteArray more = sample(3);
    const NvByteArray extra = item(NDI_TEMPERATURE, {0x41, 0xC4, 0, 0});
    more.insert(more.end(), extra.begin(), extra.end());
    NvByteArray otherIds = a;
    otherIds[0] = 0x10, otherIds[1] = 0x62; // packet counter -> an unknown id of its size
    const NvByteArray reordered =
        concat({item(NDI_STATUS_WORD, {0, 0, 0, 3}), item(NDI_PACKET_COUNTER, {0, 4}),
                item(NDI_SAMPLE_TIME_FINE, {0, 0, 1, 0})});
    const NvByteArray sameSizeOtherCut =
        concat({item(NDI_STATUS_WORD, {0, 0, 0, 3}), item(NDI_PACKET_COUNTER, {0, 4, 0, 0}),
                item(NDI_SAMPLE_TIME_FINE, {1, 0})});
    // Malformed: the last item runs past the end; the same bytes with a size that fits.
    NvByteArray truncated = a;
    truncated.resize(a.size() - 2);
    NvByteArray cutTail = concat({item(NDI_PACKET_COUNTER, {0, 9}), {0xE0, 0x20, 0x05, 1, 2}});
    NvByteArray fittingTail = cutTail;
    fittingTail[7] = 0x02; // now the tail is one whole item
    NvByteArray shortTail = concat({item(NDI_PACKET_COUNTER, {0, 9}), {0xE0, 0x20}});
    const NvByteArray empty;

    const std::vector<NvByteArray> stream = {a,         wider,       a,         more,
                                             otherIds,  a,           reordered, sameSizeOtherCut,
                                             truncated, a,           cutTail,   fittingTail,
                                             cutTail,   shortTail,   empty,     a,
                                             truncated, fittingTail, wider,     more};
    // Twice: first with new layouts, then with every layout cached.
    for (int pass = 0; pass < 2; ++pass) {
        for (size_t i = 0; i < stream.size(); ++i) {
            SCOPED_TRACE("packet " + std::to_string(i) + " pass " + std::to_string(pass));
            const NvByteArray frame = frameOf(stream[i]);
            expectIndex(NvDataPacket::viewFrame(frame.data(), frame.size()), stream[i]);
            expectIndex(NvDataPacket::fromFrame(frame.data(), frame.size()), stream[i]);
        }
    }
    EXPECT_EQ(NvDataPacket::fromData(a.data(), a.size()).acceleration(),
              NvVector3(0.5, -1.25, 9.75));
    EXPECT_EQ(NvDataPacket::fromData(wider.data(), wider.size()).acceleration(),
              NvVector3(0.5, -1.25, 9.75));
}

TEST(NvPacketLayouts, PacketsOfOneLayoutShareOneIndexAndKeepItWhenTheCacheIsCleared)
{
    const NvByteArray f1 = frameOf(sample(1)), f2 = frameOf(sample(2), 4);
    const NvDataPacket p1 = NvDataPacket::fromFrame(f1.data(), f1.size());
    const NvDataPacket p2 = NvDataPacket::viewFrame(f2.data(), f2.size());
    EXPECT_EQ(&p1.item(0), &p2.item(0));
    NvDataPacket::clearLayoutCache();
    const NvDataPacket p3 = NvDataPacket::viewFrame(f2.data(), f2.size());
    expectIndex(p1, sample(1));
    expectIndex(p3, sample(2));
    EXPECT_EQ(p1.packetCounter(), 1);
}

TEST(NvPacketLayouts, PacketsOfManyItemsAndManyLayouts)
{
    // More items than the decoder keeps on its stack.
    NvByteArray many;
    for (int i = 0; i < 300; ++i) {
        const NvByteArray it = item(uint16_t(0x9000 + i), {uint8_t(i)});
        many.insert(many.end(), it.begin(), it.end());
    }
    many.push_back(0x12); // and a cut item at the end
    const NvByteArray frame = frameOf(many);
    expectIndex(NvDataPacket::viewFrame(frame.data(), frame.size()), many);

    // More layouts than the cache holds: it starts over, packets keep theirs.
    std::vector<NvDataPacket> kept;
    std::vector<NvByteArray> data;
    for (uint16_t n = 0; n < 3000; ++n) {
        data.push_back(concat({item(NDI_PACKET_COUNTER, {uint8_t(n >> 8), uint8_t(n)}),
                               item(uint16_t(0xA000 + n), NvByteArray(n % 7, 1))}));
        const NvByteArray f = frameOf(data.back());
        if (n % 100 == 0)
            kept.push_back(NvDataPacket::viewFrame(f.data(), f.size()));
        else
            expectIndex(NvDataPacket::viewFrame(f.data(), f.size()), data.back());
    }
    for (size_t i = 0; i < kept.size(); ++i) {
        expectIndex(kept[i], data[i * 100]);
        EXPECT_EQ(kept[i].packetCounter(), i * 100);
    }
}

TEST(NvPacketLayouts, ManyThreadsDecodeTheirOwnAndSharedLayoutsWhileTheCacheIsCleared)
{
    // Forty layouts: more than a thread keeps at hand, so the shared cache is busy.
    std::vector<NvByteArray> data, frames;
    for (int i = 0; i < 40; ++i) {
        NvDataPacketBuilder b;
        b.setPacketCounter(uint16_t(i));
        b.setVector3(nvWithPrecision(NDI_ACCELERATION, NvPrecision(i % 4)), {1, 2, 3});
        if (i % 2)
            b.setSampleTimeFine(uint32_t(i));
        for (int k = 0; k < i % 5; ++k)
            b.setU8(NvDataIdentifier(0xB100 + 0x10 * (i / 5) + 0x100 * k), uint8_t(k));
        data.push_back(b.data());
        frames.push_back(frameOf(b.data()));
    }
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::vector<std::vector<NvDataPacket>> handedOver(4);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 2000; ++round) {
                const size_t i = (t * 7 + size_t(round) * (t + 1)) % frames.size();
                const NvDataPacket p = NvDataPacket::viewFrame(frames[i].data(), frames[i].size());
                const std::vector<Expected> want = walk(data[i]);
                bool ok = p.itemCount() == want.size() && p.packetCounter() == i &&
                          p.acceleration() == NvVector3(1, 2, 3);
                for (size_t k = 0; ok && k < want.size(); ++k)
                    ok = p.item(k).id == want[k].id && p.item(k).offset == want[k].offset &&
                         p.item(k).size == want[k].size;
                failures += !ok;
                if (round % 50 == 0)
                    handedOver[t].push_back(p); // released on the main thread
            }
        });
    }
    std::thread clearer([&] {
        while (!stop)
            NvDataPacket::clearLayoutCache();
    });
    for (std::thread& t : threads)
        t.join();
    stop = true;
    clearer.join();
    EXPECT_EQ(failures, 0);
    for (const auto& list : handedOver) {
        ASSERT_EQ(list.size(), 40u);
        for (const NvDataPacket& p : list)
            expectIndex(p, data[p.packetCounter()]);
    }
}
