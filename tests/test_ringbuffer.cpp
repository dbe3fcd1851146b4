// ctest-labels: threads
// The device bridge's byte ring with one producer and one consumer on two
// threads (its byte rules are held to a model by the ringbuffer fuzz target,
// whose corpus the suite replays).
#include "sonraringbuffer.h"
#include "testutil.h"

#include <atomic>
#include <thread>

using ombrel::SonraRingBuffer;

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
