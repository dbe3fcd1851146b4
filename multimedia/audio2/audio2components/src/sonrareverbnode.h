#ifndef OMBREL_SONRAREVERBNODE_H
#define OMBREL_SONRAREVERBNODE_H

#include "sonrabase.h"

#include <cstdint>

namespace ombrel {

struct SonraReverbNode_p;

// Adds one attenuated echo of the dry input to a mono signal: output k is
// input k + roundf(decay x input (k - delay)), saturated to 16 bits.
class SonraReverbNode : public SonraNode {
public:
    static int32_t DEFAULT_DELAY; // ms, given to every new node
    static float DEFAULT_DECAY;   // echo gain given to every new node

    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraReverbNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration,
                    unsigned sampleRate);
    ~SonraReverbNode() override;

    // Echo delay `delay` ms (sampleRate() x delay / 1000 samples, rounded
    // down) and gain `decay`; restarts the echo history with silence. A delay
    // that comes to no whole sample, or a negative one, means no echo.
    void setParameters(int32_t delay, float decay);

    // Restarts the echo history with silence.
    void reset(unsigned offset) override;
    // Mono only: more than one output channel fails an assertion.
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraReverbNode_p> d;
};

} // namespace ombrel

#endif
