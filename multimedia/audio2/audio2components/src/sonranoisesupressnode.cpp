#include "sonranoisesupressnode.h"

#include "sonraspeex_p.h"

#include <cstdint>
#include <vector>

namespace ombrel {

struct SonraNoiseSupressNode_p {
    speex::PreprocessPtr m_preprocess;        // channel 0 (mono, or the left channel)
    speex::PreprocessPtr m_preprocessSecond;  // channel 1, only while the node is stereo
};

namespace {

// A preprocessor for one channel of `samplesPerChannel` samples a frame at
// `sampleRate` Hz, denoising and dereverberating; everything else stays at
// the SpeexDSP defaults. None for an empty frame, which SpeexDSP cannot
// work on.
speex::PreprocessPtr createPreprocessor(unsigned samplesPerChannel, unsigned sampleRate)
{
    if (samplesPerChannel == 0)
        return speex::PreprocessPtr();
    speex::PreprocessPtr state(speex_preprocess_state_init(static_cast<int>(samplesPerChannel),
                                                           static_cast<int>(sampleRate)));
    if (state) {
        spx_int32_t on = 1;
        speex_preprocess_ctl(state.get(), SPEEX_PREPROCESS_SET_DENOISE, &on);
        on = 1;
        speex_preprocess_ctl(state.get(), SPEEX_PREPROCESS_SET_DEREVERB, &on);
    }
    return state;
}

} // namespace

SonraNoiseSupressNode::SonraNoiseSupressNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                             unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraNoiseSupressNode_p)
{
    d->m_preprocess = createPreprocessor(frameSize() / 2, sampleRate);
}

// The first state goes before the second.
SonraNoiseSupressNode::~SonraNoiseSupressNode()
{
    d->m_preprocess.reset();
    d->m_preprocessSecond.reset();
}

void SonraNoiseSupressNode::doSetOutputChannels(unsigned channels)
{
    d->m_preprocessSecond.reset();
    if (channels == 2)
        d->m_preprocessSecond = createPreprocessor(frameSize() / 2, sampleRate());
}

void SonraNoiseSupressNode::reset(unsigned /*offset*/)
{
    if (d->m_preprocessSecond)
        doSetOutputChannels(outputChannels());
    if (d->m_preprocess) {
        d->m_preprocess.reset();
        d->m_preprocess = createPreprocessor(frameSize() / 2, sampleRate());
    }
}

boost::shared_ptr<std::vector<char> > SonraNoiseSupressNode::doProcess()
{
    const boost::shared_ptr<std::vector<char> > in = getInputData();
    if (!in || in->empty())
        return boost::shared_ptr<std::vector<char> >();

    const bool stereo = outputChannels() == 2;
    const std::size_t expectedBytes = stereo ? 2 * static_cast<std::size_t>(frameSize()) : frameSize();
    if (in->size() != expectedBytes)
        return in;
    spx_int16_t* samples = reinterpret_cast<spx_int16_t*>(in->data());

    if (!stereo) {
        if (d->m_preprocess)
            speex_preprocess_run(d->m_preprocess.get(), samples);
        return in;
    }
    if (!d->m_preprocess || !d->m_preprocessSecond)
        return in;

    // Each channel's state needs its samples contiguous.
    const std::size_t n = frameSize() / 2;
    std::vector<spx_int16_t> channels(2 * n);
    spx_int16_t* left = channels.data();
    spx_int16_t* right = left + n;
    for (std::size_t k = 0; k < n; ++k) {
        left[k] = samples[2 * k];
        right[k] = samples[2 * k + 1];
    }
    speex_preprocess_run(d->m_preprocess.get(), left);
    speex_preprocess_run(d->m_preprocessSecond.get(), right);
    for (std::size_t k = 0; k < n; ++k) {
        samples[2 * k] = left[k];
        samples[2 * k + 1] = right[k];
    }
    return in;
}

} // namespace ombrel
