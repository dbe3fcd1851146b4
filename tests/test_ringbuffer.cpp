// ctest-labels: threads
// The device bridge's byte ring: overwrite-oldest, zero fill, resizing, and
// one producer with one consumer on two threads.
#include "sonraringbuffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <thread>
#include <vector>

using ombrel::SonraRingBuffer;

namespace {

void put(SonraRingBuffer& ring, const std::string& bytes)
{
    ring.put(bytes.data(), static_cast<unsigned>(bytes.size()));
}

// Takes `length` bytes; returns them with the count of real ones.
std::string get(SonraRingBuffer& ring, unsigned length, unsigned* real = nullptr)
{
    std::string out(length, '?');
    const unsigned got = ring.get(&out[0], length);
    if (real)
        *real = got;
    return out;
}

// Everything the ring holds, oldest first (empties it).
std::string drain(SonraRingBuffer& ring, unsigned capacity)
{
    unsigned real = 0;
    const std::string all = get(ring, capacity + 1, &real);
    return all.substr(0, real);
}

// The rules applied one byte at a time, as the ring must behave.
class ByteModel {
public:
    explicit ByteModel(unsigned capacity) : m_capacity(capacity) {}
    void put(const char* data, unsigned length)
    {
        for (unsigned i = 0; i < length; ++i) {
            if (m_bytes.size() < m_capacity) {
                m_bytes.push_back(data[i]);
            } else if (m_capacity != 0) {
                m_bytes.pop_front();
                m_bytes.push_back(data[i]);
            }
        }
    }
    unsigned get(char* data, unsigned length)
    {
        unsigned n = 0;
        for (; n < length && !m_bytes.empty(); ++n) {
            data[n] = m_bytes.front();
            m_bytes.pop_front();
        }
        for (unsigned i = n; i < length; ++i)
            data[i] = 0;
        return n;
    }
    void setSize(unsigned size)
    {
        if (size == m_capacity)
            return;
        m_capacity = size;
        while (m_bytes.size() > size)
            m_bytes.pop_back();
    }
    void reset() { m_bytes.clear(); }

private:
    unsigned m_capacity;
    std::deque<char> m_bytes;
};

} // namespace

TEST(RingBuffer, GetOfZeroBytesWritesNothing)
{
    SonraRingBuffer ring(8);
    put(ring, "abc");
    char sentinel = 'z';
    EXPECT_EQ(0u, ring.get(&sentinel, 0));
    EXPECT_EQ('z', sentinel);
    EXPECT_EQ("abc", drain(ring, 8));
}

TEST(RingBuffer, EmptyRingZeroFills)
{
    SonraRingBuffer ring(8);
    unsigned real = 1;
    EXPECT_EQ(std::string(5, '\0'), get(ring, 5, &real));
    EXPECT_EQ(0u, real);
}

TEST(RingBuffer, ShortGetDeliversRealBytesThenZeros)
{
    SonraRingBuffer ring(8);
    put(ring, "abc");
    unsigned real = 0;
    EXPECT_EQ(std::string("abc\0\0", 5), get(ring, 5, &real));
    EXPECT_EQ(3u, real);
    EXPECT_EQ(std::string(4, '\0'), get(ring, 4, &real));
    EXPECT_EQ(0u, real);
}

TEST(RingBuffer, FullRingOverwritesTheOldestBytes)
{
    SonraRingBuffer ring(8);
    put(ring, "ABCDEFGH");
    put(ring, "XY");
    EXPECT_EQ("CDEFGHXY", drain(ring, 8));
}

TEST(RingBuffer, PartlyFullRingOverwritesOnlyWhatDoesNotFit)
{
    SonraRingBuffer ring(8);
    put(ring, "ABCDEF");
    put(ring, "1234");
    EXPECT_EQ("CDEF1234", drain(ring, 8));
}

TEST(RingBuffer, PutLargerThanCapacityKeepsItsLastBytes)
{
    SonraRingBuffer ring(8);
    put(ring, "old");
    put(ring, "0123456789abcdef");
    EXPECT_EQ("89abcdef", drain(ring, 8));
}

TEST(RingBuffer, WrappedDataComesOutInOrder)
{
    SonraRingBuffer ring(8);
    put(ring, "abcdef");
    EXPECT_EQ("abcde", get(ring, 5)); // the content now starts near the end of the storage
    put(ring, "ghijk");               // and wraps past it
    EXPECT_EQ("fghijk", drain(ring, 8));
    put(ring, "lmnopqrstu");
    EXPECT_EQ("nopqrstu", drain(ring, 8));
}

TEST(RingBuffer, CapacityZeroStoresNothing)
{
    SonraRingBuffer ring(0);
    put(ring, "abc");
    unsigned real = 9;
    EXPECT_EQ(std::string(3, '\0'), get(ring, 3, &real));
    EXPECT_EQ(0u, real);
}

TEST(RingBuffer, ShrinkingKeepsTheOldestBytes)
{
    SonraRingBuffer ring(8);
    put(ring, "ABCDEF");
    ring.setSize(4);
    EXPECT_EQ("ABCD", drain(ring, 8));
    put(ring, "123456");
    EXPECT_EQ("3456", drain(ring, 8)); // the new capacity holds
}

TEST(RingBuffer, SameOrLargerSizeKeepsEverything)
{
    SonraRingBuffer ring(8);
    put(ring, "abcdef");
    get(ring, 4);
    put(ring, "ghijkl"); // wrapped content: efghijkl
    ring.setSize(8);
    put(ring, "");
    EXPECT_EQ("efghijkl", drain(ring, 8));

    put(ring, "mnopqrst");
    ring.setSize(12);
    put(ring, "uvwx");
    EXPECT_EQ("mnopqrstuvwx", drain(ring, 12));
}

TEST(RingBuffer, ResetDiscardsButKeepsCapacity)
{
    SonraRingBuffer ring(8);
    put(ring, "abcdef");
    ring.reset();
    unsigned real = 9;
    EXPECT_EQ(std::string(3, '\0'), get(ring, 3, &real));
    EXPECT_EQ(0u, real);
    put(ring, "0123456789");
    EXPECT_EQ("23456789", drain(ring, 8));
}

// Random operations against the byte-at-a-time rules: the ring's block
// copies must give exactly the same bytes and counts. Small rings cover
// every wrap position; large ones (over 4 KiB held) take the other way of
// appending.
void compareWithByteRules(unsigned seed, unsigned maxCapacity, int rounds, int steps)
{
    std::mt19937 random(seed);
    for (int round = 0; round < rounds; ++round) {
        unsigned capacity = random() % maxCapacity;
        SonraRingBuffer ring(capacity);
        ByteModel model(capacity);
        std::vector<char> data(2 * maxCapacity + 3), got(data.size()), expected(data.size());
        for (int step = 0; step < steps; ++step) {
            const unsigned action = random() % 100;
            const unsigned length = random() % (2 * capacity + 3);
            if (action < 45) {
                for (unsigned i = 0; i < length; ++i)
                    data[i] = static_cast<char>(random());
                ring.put(data.data(), length);
                model.put(data.data(), length);
            } else if (action < 90) {
                std::fill(got.begin(), got.end(), 'q');
                std::fill(expected.begin(), expected.end(), 'q');
                ASSERT_EQ(model.get(expected.data(), length), ring.get(got.data(), length))
                    << "round " << round << " step " << step;
                ASSERT_EQ(expected, got) << "round " << round << " step " << step;
            } else if (action < 97) {
                capacity = random() % maxCapacity;
                ring.setSize(capacity);
                model.setSize(capacity);
            } else {
                ring.reset();
                model.reset();
            }
        }
    }
}

TEST(RingBuffer, MatchesTheByteByByteRules)
{
    compareWithByteRules(20261123, 64, 40, 400);
}

TEST(RingBuffer, LargeRingsMatchTheByteByByteRules)
{
    compareWithByteRules(4242, 12000, 6, 300);
}

// One producer and one consumer, as the device and the graph use a ring.
// Records are 4-byte counters and every size is a multiple of 4, so
// overwriting drops whole records: the consumer must see strictly rising
// counters, and what it received plus the gaps must be all that was sent.
TEST(RingBuffer, OneProducerOneConsumerKeepOrderAndAccountForLoss)
{
    const unsigned capacity = 4096;
    const uint32_t records = 400000;
    SonraRingBuffer ring(capacity);
    std::atomic<bool> producerDone(false);

    std::thread producer([&] {
        std::mt19937 random(7);
        std::vector<uint32_t> block(256);
        uint32_t next = 1;
        while (next <= records) {
            const uint32_t count = std::min<uint32_t>(1 + random() % 256, records - next + 1);
            for (uint32_t i = 0; i < count; ++i)
                block[i] = next++;
            ring.put(reinterpret_cast<const char*>(block.data()), count * 4);
            if (random() % 2 == 0)
                std::this_thread::yield(); // let the consumer in, now and then not
        }
        producerDone = true;
    });

    std::mt19937 random(11);
    std::vector<uint32_t> block(300);
    uint32_t last = 0;
    uint64_t received = 0, lost = 0;
    bool ordered = true, zeroFilled = true;
    for (;;) {
        const bool finished = producerDone.load();
        const unsigned want = 1 + random() % 300;
        std::fill(block.begin(), block.end(), 0xdeadbeef);
        const unsigned real = ring.get(reinterpret_cast<char*>(block.data()), want * 4);
        ASSERT_EQ(0u, real % 4);
        for (unsigned i = 0; i < real / 4; ++i) {
            ordered = ordered && block[i] > last;
            lost += block[i] - last - 1;
            last = block[i];
            ++received;
        }
        for (unsigned i = real / 4; i < want; ++i)
            zeroFilled = zeroFilled && block[i] == 0;
        if (finished && real == 0)
            break;
    }
    producer.join();

    EXPECT_TRUE(ordered);
    EXPECT_TRUE(zeroFilled);
    EXPECT_EQ(records, last); // the newest record is never overwritten
    EXPECT_EQ(uint64_t(records), received + lost);
    EXPECT_GT(received, 0u);
    RecordProperty("received", std::to_string(received));
    RecordProperty("lost", std::to_string(lost));
}
