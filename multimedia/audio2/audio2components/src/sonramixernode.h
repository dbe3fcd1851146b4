#ifndef OMBREL_SONRAMIXERNODE_H
#define OMBREL_SONRAMIXERNODE_H

#include "sonrabase.h"

namespace ombrel {

struct SonraMixerNode_p;

// Sums the PCM frames of all its inputs, each with its own channel count,
// into one frame, behind a soft limiter that recovers on timer ticks.
class SonraMixerNode : public SonraNode {
public:
    // A summed sample at or beyond +/- this level is limited: the limiter's
    // gain drops so that it comes out at 0.9 of the level.
    static constexpr int32_t LIMIT_LEVEL = 28672;

    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraMixerNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration, unsigned sampleRate);
    ~SonraMixerNode() override;

    void timerTick() override;
    void reset(unsigned offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraMixerNode_p> d;
};

} // namespace ombrel

#endif
