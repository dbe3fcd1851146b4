#ifndef OMBREL_SONRANOISESUPRESSNODE_H
#define OMBREL_SONRANOISESUPRESSNODE_H

#include "sonrabase.h"

namespace ombrel {

struct SonraNoiseSupressNode_p;

// Removes background noise and reverberation from its input's PCM frames in
// place with the SpeexDSP preprocessor, one state per channel (mono or
// stereo). A frame that is not exactly one full frame passes untouched.
class SonraNoiseSupressNode : public SonraNode {
public:
    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraNoiseSupressNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration,
                          unsigned sampleRate);
    ~SonraNoiseSupressNode() override;

    // Forgets the noise estimates.
    void reset(unsigned offset) override;
    // Gives the right channel its own state when `channels` is 2.
    void doSetOutputChannels(unsigned channels) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraNoiseSupressNode_p> d;
};

} // namespace ombrel

#endif
