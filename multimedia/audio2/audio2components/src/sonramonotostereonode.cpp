#include "sonramonotostereonode.h"

#include "sonradelayline_p.h"

#include <boost/make_shared.hpp>

#include <algorithm>

namespace ombrel {

int32_t SonraMonoToStereoNode::DEFAULT_DELAY = 0; // ms

struct SonraMonoToStereoNode_p {
    uint32_t m_delaySamples = 0;                              // delay of the right channel, samples
    boost::circular_buffer<int16_t> m_delayLine;              // the last m_delaySamples input samples
    int32_t m_delayMs = SonraMonoToStereoNode::DEFAULT_DELAY; // delay as last set, ms
};

namespace {

// A plain loop over unaliased buffers, which the compiler vectorises.
void interleave(const int16_t* __restrict left, const int16_t* __restrict right, int16_t* __restrict stereo,
                std::size_t count)
{
    for (std::size_t k = 0; k < count; ++k) {
        stereo[2 * k] = left[k];
        stereo[2 * k + 1] = right[k];
    }
}

} // namespace

SonraMonoToStereoNode::SonraMonoToStereoNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                             unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraMonoToStereoNode_p)
{
    setHaasEffect(DEFAULT_DELAY);
}

SonraMonoToStereoNode::~SonraMonoToStereoNode() = default;

void SonraMonoToStereoNode::setHaasEffect(int32_t delayMs)
{
    // A negative delay would wrap the unsigned sample count into a delay line
    // of gigabytes; it can only mean "no delay".
    const int32_t delay = std::max<int32_t>(delayMs, 0);
    d->m_delaySamples = (sampleRate() * static_cast<uint32_t>(delay)) / 1000u;
    delayline::restart(d->m_delayLine, d->m_delaySamples);
    d->m_delayMs = delay;
}

void SonraMonoToStereoNode::reset(unsigned /*offset*/)
{
    setHaasEffect(d->m_delayMs);
}

boost::shared_ptr<std::vector<char> > SonraMonoToStereoNode::doProcess()
{
    const boost::shared_ptr<std::vector<char> > in = getInputData();
    if (!in || in->empty()) {
        // The delayed channel hears the gap as silence, so it keeps time.
        delayline::advanceSilence(d->m_delayLine, frameSize() / 2);
        return boost::shared_ptr<std::vector<char> >();
    }

    // An odd trailing byte is no sample and is dropped.
    const std::size_t n = in->size() / 2;
    const boost::shared_ptr<std::vector<char> > out = boost::make_shared<std::vector<char> >(4 * n);
    const int16_t* mono = reinterpret_cast<const int16_t*>(in->data());
    int16_t* stereo = reinterpret_cast<int16_t*>(out->data());

    // Left is the input; right is what the delay line hands on.
    if (d->m_delaySamples == 0) {
        interleave(mono, mono, stereo, n);
        return out;
    }
    delayline::forEachDelayedRun(d->m_delayLine, mono, n,
                                 [mono, stereo](std::size_t first, const int16_t* right, std::size_t count) {
                                     interleave(mono + first, right, stereo + 2 * first, count);
                                 });
    delayline::advance(d->m_delayLine, mono, n);
    return out;
}

} // namespace ombrel
