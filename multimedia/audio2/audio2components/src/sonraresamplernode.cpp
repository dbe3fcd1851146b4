#include "sonraresamplernode.h"

#include "sonraspeex_p.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cmath>

namespace ombrel {

int32_t SonraResamplerNode::RESAMPLE_QUALITY = 5;

struct SonraResamplerNode_p {
    uint32_t m_inSampleRate;           // Hz of the incoming frames
    uint32_t m_outSampleRate;          // Hz of the outgoing frames
    speex::ResamplerPtr m_resampler;   // built for the current channel count
};

namespace {

// Twice the output samples per channel that `inLen` input samples give, so
// that the resampler never runs out of room. Single precision, the rate
// ratio first, halves rounded away from zero.
uint32_t outputCapacity(uint32_t inLen, uint32_t inSampleRate, uint32_t outSampleRate)
{
    const float ratio = static_cast<float>(outSampleRate) / static_cast<float>(inSampleRate);
    return static_cast<uint32_t>(std::roundf(2.0f * (static_cast<float>(inLen) * ratio)));
}

} // namespace

SonraResamplerNode::SonraResamplerNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                       unsigned inSampleRate, unsigned outSampleRate, unsigned frameDuration)
    : SonraNode(ioService, frameDuration, outSampleRate), d(new SonraResamplerNode_p)
{
    d->m_inSampleRate = inSampleRate;
    d->m_outSampleRate = outSampleRate;
    doSetOutputChannels(outputChannels());
}

SonraResamplerNode::~SonraResamplerNode() = default;

void SonraResamplerNode::doSetOutputChannels(unsigned channels)
{
    d->m_resampler.reset();
    int error = 0;
    d->m_resampler.reset(speex_resampler_init(channels, d->m_inSampleRate, d->m_outSampleRate,
                                              RESAMPLE_QUALITY, &error));
}

void SonraResamplerNode::reset(unsigned /*offset*/)
{
    if (!d->m_resampler)
        return;
    speex_resampler_reset_mem(d->m_resampler.get());
    // SpeexDSP's reset clears only the first channel's whole history (the
    // later channels' histories start past the span it zeroes), so a
    // multi-channel state is built afresh: the same as a cleared history.
    if (outputChannels() > 1)
        doSetOutputChannels(outputChannels());
}

boost::shared_ptr<std::vector<char> > SonraResamplerNode::doProcess()
{
    const boost::shared_ptr<std::vector<char> > in = getInputData();
    if (!in || in->empty())
        return boost::shared_ptr<std::vector<char> >();
    if (d->m_inSampleRate == d->m_outSampleRate)
        return in;
    const unsigned channels = outputChannels();
    if (!d->m_resampler || channels == 0)
        return boost::shared_ptr<std::vector<char> >();

    const uint32_t frameLen = (frameDuration() * d->m_inSampleRate) / 1000; // samples per channel
    // A short frame is resampled for what it holds, never read past.
    const std::size_t bytesPerInstant = static_cast<std::size_t>(channels) * 2; // one sample of every channel
    uint32_t inLen = static_cast<uint32_t>(std::min<std::size_t>(frameLen, in->size() / bytesPerInstant));
    uint32_t outCap = outputCapacity(frameLen, d->m_inSampleRate, d->m_outSampleRate);

    const boost::shared_ptr<std::vector<char> > out =
        boost::make_shared<std::vector<char> >(static_cast<std::size_t>(outCap) * bytesPerInstant);
    speex_resampler_process_interleaved_int(d->m_resampler.get(),
                                            reinterpret_cast<const spx_int16_t*>(in->data()), &inLen,
                                            reinterpret_cast<spx_int16_t*>(out->data()), &outCap);
    out->resize(static_cast<std::size_t>(outCap) * bytesPerInstant);
    return out;
}

} // namespace ombrel
