// The adaptive jitter buffer under arbitrary sequences of puts, gets, clock
// steps and reconfigurations (always a valid configuration). Oracle: every
// delivered frame was put since the last reset, is delivered once, with its
// own sequence number and timestamp; "nothing due" leaves the caller's
// frame and numbers untouched; the statistics add up.
#include "fuzzutil.h"
#include "sonrajbuf.h"

#include <cstring>

using namespace sonrafuzz;

namespace {

enum Op { PUT_NEXT, PUT_NEAR, PUT_ANY, GET, TICK, CONFIGURE, RESET, RECOVERY, POLICY, OP_COUNT };

struct Put { unsigned seqNum, timeStamp, time; bool delivered; }; // time: the clock (ms) at the put

struct Model {
    std::vector<Put> puts; // by frame id, never cleared
    std::size_t firstId = 0; // of the frames put since the last reset
    uint64_t gets = 0, delivered = 0;
    unsigned now = 0;       // ms
    unsigned nextSeqNum = 1;
    bool adaptive = false;  // an adaptive playout policy: counts add up over several queues

    void restart() { firstId = puts.size(), gets = delivered = 0; }
};

// Delays that reset() accepts: multiples of the period, max >= initial >= min.
void configure(ombrel::SonraJbuf& jbuf, Reader& in)
{
    static const unsigned PERIODS[] = {10, 20, 30, 60}; // ms
    const unsigned period = PERIODS[in.choice(4)];
    const unsigned minDepth = 1 + in.choice(4), initial = minDepth + in.choice(3), max = initial + in.choice(3);
    // Every delay so far is a multiple of 10 ms: through a 10 ms period each step stays valid.
    jbuf.setFrameDuration(10);
    jbuf.setDelays(initial * period, minDepth * period, max * period, in.choice(16) * period);
    jbuf.setFrameDuration(period);
}

void put(ombrel::SonraJbuf& jbuf, Model& model, unsigned seqNum)
{
    const uint32_t id = static_cast<uint32_t>(model.puts.size());
    model.puts.push_back({seqNum, id * 3 + 1, model.now, false});
    auto payload = boost::make_shared<std::vector<char> >(4 + id % 3);
    std::memcpy(payload->data(), &id, 4);
    jbuf.putFrame(payload, seqNum, id * 3 + 1);
}

void get(ombrel::SonraJbuf& jbuf, Model& model)
{
    const Frame untouched = boost::make_shared<std::vector<char> >(1, 'u');
    Frame frame = untouched;
    unsigned seqNum = 7, timeStamp = 7;
    const unsigned result = jbuf.getFrame(frame, &seqNum, &timeStamp);
    ++model.gets;
    if (result != 0) {
        FUZZ_CHECK(result == 1 && frame == untouched && seqNum == 7 && timeStamp == 7);
        return;
    }
    FUZZ_CHECK(frame && frame->size() >= 4);
    uint32_t id;
    std::memcpy(&id, frame->data(), 4);
    FUZZ_CHECK(id >= model.firstId && id < model.puts.size() && frame->size() == 4 + id % 3);
    Put& put = model.puts[id];
    FUZZ_CHECK(!put.delivered);
    FUZZ_CHECK(seqNum == put.seqNum && timeStamp == put.timeStamp);
    put.delivered = true;
    ++model.delivered;
    const ombrel::SonraJbufStatistics statistics = jbuf.statistics();
    FUZZ_CHECK(statistics.lastSeqNum == put.seqNum && statistics.lastTimeStamp == put.timeStamp);
    FUZZ_CHECK(statistics.lastResidenceTime == model.now - put.time);
}

void checkStatistics(const ombrel::SonraJbuf& jbuf, const Model& model)
{
    const ombrel::SonraJbufStatistics s = jbuf.statistics();
    FUZZ_CHECK(s.framesPlayed == model.delivered);
    if (model.adaptive)
        return;
    FUZZ_CHECK(s.framesPut == model.puts.size() - model.firstId && s.framesPlayed + s.underruns == model.gets);
    // Every frame put is refused, played, dropped, or still counted.
    FUZZ_CHECK(s.framesPut == s.framesTooOld + s.framesUnnumbered + s.framesStray + s.framesPlayed + s.framesDropped +
                                  s.queuedFrames);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Reader in(data, size);
    Model model;
    ombrel::SonraJbuf jbuf(20);
    jbuf.setTimeHandler([&model]() { return model.now; });
    configure(jbuf, in);
    for (unsigned step = 0; step < 4096 && !in.done(); ++step) {
        switch (in.choice(OP_COUNT)) {
        case PUT_NEXT: put(jbuf, model, model.nextSeqNum++); break;
        case PUT_NEAR: put(jbuf, model, model.nextSeqNum + static_cast<int8_t>(in.byte())); break;
        case PUT_ANY: put(jbuf, model, in.u32()); break;
        case GET: get(jbuf, model); break;
        case TICK: model.now += in.byte(); break;
        case CONFIGURE: configure(jbuf, in), model.restart(); break;
        case RESET: jbuf.reset(), model.restart(); break;
        case RECOVERY: jbuf.setRecovery(in.byte() & 1); break;
        case POLICY: {
            const unsigned choice = in.byte();
            model.adaptive = choice & 1; // the adaptive or the histogram policy
            jbuf.setPlayoutPolicy(!model.adaptive ? ombrel::SonraJbuf::PLAYOUT_INITIAL_DELAY
                                  : choice & 2    ? ombrel::SonraJbuf::PLAYOUT_HISTOGRAM
                                                  : ombrel::SonraJbuf::PLAYOUT_ADAPTIVE);
            model.restart();
            break;
        }
        }
        checkStatistics(jbuf, model);
    }
    return 0;
}
