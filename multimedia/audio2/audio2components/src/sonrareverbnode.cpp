#include "sonrareverbnode.h"

#include "shared.h"
#include "sonradelayline_p.h"
#include "sonrarounding_p.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cmath>

namespace ombrel {

int32_t SonraReverbNode::DEFAULT_DELAY = 7;  // ms
float SonraReverbNode::DEFAULT_DECAY = 0.5f; // echo gain

struct SonraReverbNode_p {
    uint32_t m_delaySamples = 0;                      // echo delay, samples
    boost::circular_buffer<int16_t> m_delayLine;      // the last m_delaySamples input samples
    int32_t m_delay = SonraReverbNode::DEFAULT_DELAY; // echo delay as last set, ms
    float m_decay = SonraReverbNode::DEFAULT_DECAY;   // echo gain
};

namespace {

// Decays are held to this magnitude, which keeps echo source x decay inside
// int range (32768 x 65535 < 2^31). It changes no result: a larger decay
// turns any non-zero echo source into an echo that saturates the sum anyway.
const float DECAY_LIMIT = 65535.0f;
// An echo beyond this magnitude saturates the sum whatever the dry sample
// is; clamping it keeps the sum inside int range.
const int32_t ECHO_LIMIT = 65536;

float usableDecay(float decay)
{
    if (std::isnan(decay))
        return 0.0f; // no echo
    return std::clamp(decay, -DECAY_LIMIT, DECAY_LIMIT);
}

// dry + roundf(echoSource x decay), saturated to 16 bits, for a decay
// within DECAY_LIMIT (so the echo stays below 2^31 in magnitude). Free of
// branches and float compares-and-selects, so that loops over it vectorise.
inline int16_t withEcho(int16_t dry, int16_t echoSource, float decay)
{
    int32_t rounded = rounding::halfAwayFromZero(static_cast<float>(echoSource) * decay);
    rounded = rounded < -ECHO_LIMIT ? -ECHO_LIMIT : (rounded > ECHO_LIMIT ? ECHO_LIMIT : rounded);
    return SonraNode::normalize(rounded + dry);
}

// A plain loop over unaliased buffers, which the compiler vectorises.
void addEchoes(const int16_t* __restrict dry, const int16_t* __restrict echoes, int16_t* __restrict wet,
               std::size_t count, float decay)
{
    for (std::size_t k = 0; k < count; ++k)
        wet[k] = withEcho(dry[k], echoes[k], decay);
}

} // namespace

SonraReverbNode::SonraReverbNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                 unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraReverbNode_p)
{
    setParameters(DEFAULT_DELAY, DEFAULT_DECAY);
}

SonraReverbNode::~SonraReverbNode() = default;

void SonraReverbNode::setParameters(int32_t delay, float decay)
{
    // A negative delay would wrap the unsigned sample count into a delay line
    // of gigabytes; it can only mean "no echo".
    const int32_t delayMs = std::max<int32_t>(delay, 0);
    d->m_delaySamples = (sampleRate() * static_cast<uint32_t>(delayMs)) / 1000u;
    delayline::restart(d->m_delayLine, d->m_delaySamples);
    d->m_decay = decay;
    d->m_delay = delayMs;
}

void SonraReverbNode::reset(unsigned /*offset*/)
{
    setParameters(d->m_delay, d->m_decay);
}

boost::shared_ptr<std::vector<char> > SonraReverbNode::doProcess()
{
    SONRA_ASSERT(outputChannels()==1);

    const boost::shared_ptr<std::vector<char> > in = getInputData();
    if (!in || in->empty()) {
        // The echo hears the gap as silence, so it keeps time.
        delayline::advanceSilence(d->m_delayLine, frameSize() / 2);
        return boost::shared_ptr<std::vector<char> >();
    }

    const boost::shared_ptr<std::vector<char> > out = boost::make_shared<std::vector<char> >(in->size());
    // An odd trailing byte is no sample: it stays zero.
    const std::size_t n = in->size() / 2;
    const int16_t* dry = reinterpret_cast<const int16_t*>(in->data());
    int16_t* wet = reinterpret_cast<int16_t*>(out->data());

    // No whole sample of delay (0 ms, or less than one sample period): no
    // echo, since an empty line has no past to give.
    if (d->m_delaySamples == 0) {
        std::copy(dry, dry + n, wet);
        return out;
    }
    const float decay = usableDecay(d->m_decay);
    delayline::forEachDelayedRun(d->m_delayLine, dry, n,
                                 [dry, wet, decay](std::size_t first, const int16_t* echoes, std::size_t count) {
                                     addEchoes(dry + first, echoes, wet + first, count, decay);
                                 });
    // The line takes the dry input, not the output: one echo, no feedback.
    delayline::advance(d->m_delayLine, dry, n);
    return out;
}

} // namespace ombrel
