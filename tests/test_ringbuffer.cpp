// ctest-labels: threads
// The device bridge's byte ring: overwrite-oldest, zero fill, resizing, and
// one producer with one consumer on two threads.
#include "sonraringbuffer.h"
#include "testutil.h"

#include <atomic>
#include <thread>

using ombrel::SonraRingBuffer;

namespace {

// The rules on a plain string: the ring must give the same bytes and counts.
struct StringModel {
    unsigned capacity;
    std::string bytes;
    void put(const char* data, unsigned length)
    {
        bytes.append(data, length);
        bytes.erase(0, bytes.size() - std::min<std::size_t>(bytes.size(), capacity));
    }
    unsigned get(char* data, unsigned length)
    {
        const unsigned real = static_cast<unsigned>(std::min<std::size_t>(length, bytes.size()));
        std::fill(std::copy(bytes.begin(), bytes.begin() + real, data), data + length, 0);
        bytes.erase(0, real);
        return real;
    }
    void setSize(unsigned size) { capacity = size, bytes.resize(std::min<std::size_t>(bytes.size(), size)); }
};

// Random operations: small rings cover every wrap position; large ones
// (over 4 KiB held) take the other way of appending.
void compareWithByteRules(unsigned seed, unsigned maxCapacity, int rounds, int steps)
{
    std::mt19937 random(seed);
    for (int round = 0; round < rounds; ++round) {
        unsigned capacity = random() % maxCapacity;
        SonraRingBuffer ring(capacity);
        StringModel model{capacity, ""};
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
                got.assign(got.size(), 'q'), expected = got; // nothing past `length` is written
                ASSERT_EQ(model.get(expected.data(), length), ring.get(got.data(), length)) << round << "/" << step;
                ASSERT_EQ(expected, got) << round << "/" << step;
            } else if (action < 97) {
                capacity = random() % maxCapacity;
                ring.setSize(capacity);
                model.setSize(capacity);
            } else {
                ring.reset();
                model.bytes.clear();
            }
        }
    }
}

} // namespace

TEST(RingBuffer, BlockCopiesMatchThePlainRules)
{
    compareWithByteRules(20261123, 64, 40, 400);
    compareWithByteRules(4242, 12000, 6, 300);
}

// One producer and one consumer, as the device and the graph use a ring.
// Records are 4-byte counters and every size is a multiple of 4, so
// overwriting drops whole records: the consumer must see strictly rising
// counters, and what it received plus the gaps must be all that was sent.
TEST(RingBuffer, OneProducerOneConsumerKeepOrderAndAccountForLoss)
{
    const uint32_t records = 400000;
    SonraRingBuffer ring(4096);
    std::atomic<bool> producerDone(false);
    std::thread producer([&] {
        std::mt19937 random(7);
        std::vector<uint32_t> block(256);
        for (uint32_t next = 1; next <= records;) {
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
    bool ordered = true;
    for (;;) {
        const bool finished = producerDone.load();
        const unsigned want = 1 + random() % 300;
        const unsigned real = ring.get(reinterpret_cast<char*>(block.data()), want * 4);
        ASSERT_EQ(0u, real % 4);
        for (unsigned i = 0; i < real / 4; ++i) {
            ordered = ordered && block[i] > last;
            lost += block[i] - last - 1;
            last = block[i];
            ++received;
        }
        if (finished && real == 0)
            break;
    }
    producer.join();

    EXPECT_TRUE(ordered);
    EXPECT_EQ(records, last); // the newest record is never overwritten
    EXPECT_EQ(uint64_t(records), received + lost);
}
