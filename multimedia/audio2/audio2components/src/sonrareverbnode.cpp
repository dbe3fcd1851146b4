#include "sonrareverbnode.h"

#include "shared.h"
#include "sonradelayline_p.h"
#include "sonralimiter_p.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstring>

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

// An echo beyond this magnitude saturates the sum whatever the dry sample
// is; clamping it keeps the sum inside int range for any decay.
const int32_t ECHO_LIMIT = 65536;

// x + roundf(echo x decay) (halves away from zero), saturated to 16 bits.
inline int16_t withEcho(int16_t dry, int16_t echoSource, float decay)
{
    const int32_t echo = limiter::roundToInt(static_cast<float>(echoSource) * decay);
    return SonraNode::normalize(std::clamp(echo, -ECHO_LIMIT, ECHO_LIMIT) + dry);
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
    delayline::restart(d->m_delayLine, delayMs != 0 ? d->m_delaySamples : 0);
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
    const float decay = d->m_decay;
    delayline::forEachDelayedRun(d->m_delayLine, dry, n,
                                 [dry, wet, decay](std::size_t first, const int16_t* echoes, std::size_t count) {
                                     for (std::size_t k = 0; k < count; ++k)
                                         wet[first + k] = withEcho(dry[first + k], echoes[k], decay);
                                 });
    // The line takes the dry input, not the output: one echo, no feedback.
    delayline::advance(d->m_delayLine, dry, n);
    return out;
}

} // namespace ombrel
