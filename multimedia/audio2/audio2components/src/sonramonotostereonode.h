#ifndef OMBREL_SONRAMONOTOSTEREONODE_H
#define OMBREL_SONRAMONOTOSTEREONODE_H

#include "sonrabase.h"

#include <cstdint>

namespace ombrel {

struct SonraMonoToStereoNode_p;

// Widens a mono voice into stereo with the Haas effect: the left channel is
// the input, the right channel the input a few milliseconds later (a plain
// copy with no delay). The output is always stereo, twice the input's size,
// whatever outputChannels() says; the owner sets two output channels.
class SonraMonoToStereoNode : public SonraNode {
public:
    // Delay of the right channel in ms given to every new node.
    static int32_t DEFAULT_DELAY;

    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraMonoToStereoNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration,
                          unsigned sampleRate);
    ~SonraMonoToStereoNode() override;

    // Delays the right channel by `delayMs` ms (sampleRate() x delayMs / 1000
    // samples, rounded down) and restarts the delay with silence. A negative
    // delay counts as 0: the right channel is then a copy of the left.
    void setHaasEffect(int32_t delayMs);

    // Restarts the delay with silence.
    void reset(unsigned offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraMonoToStereoNode_p> d;
};

} // namespace ombrel

#endif
