#ifndef OMBREL_SONRARESAMPLERNODE_H
#define OMBREL_SONRARESAMPLERNODE_H

#include "sonrabase.h"

#include <cstdint>

namespace ombrel {

struct SonraResamplerNode_p;

// Converts its input's PCM frames from the input sample rate to the node's
// own (output) rate with the SpeexDSP resampler; input and output have the
// node's channel count. Equal rates pass the input frame buffer through.
//
// Each input frame is taken as one frame's worth of samples: a shorter one
// is converted for the samples it holds, a longer one for one frame's worth.
// Output frames hold what the resampler gives for that input, so their
// length may vary by a sample when the rate ratio is not whole.
class SonraResamplerNode : public SonraNode {
public:
    // SpeexDSP quality (0 to 10) of every resampler state created from now on.
    static int32_t RESAMPLE_QUALITY;

    // Converts frames of `frameDuration` ms from `inSampleRate` to `outSampleRate` Hz.
    SonraResamplerNode(boost::shared_ptr<boost::asio::io_service> ioService,
                       unsigned inSampleRate, unsigned outSampleRate, unsigned frameDuration);
    ~SonraResamplerNode() override;

    // Clears the filter history.
    void reset(unsigned offset) override;
    // Builds a new resampler state for `channels` (none when SpeexDSP refuses
    // the configuration; the node then gives no output).
    void doSetOutputChannels(unsigned channels) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraResamplerNode_p> d;
};

} // namespace ombrel

#endif
