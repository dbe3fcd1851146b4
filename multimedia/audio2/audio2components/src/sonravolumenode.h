#ifndef OMBREL_SONRAVOLUMENODE_H
#define OMBREL_SONRAVOLUMENODE_H

#include "sonrabase.h"

namespace ombrel {

struct SonraVolumeNode_p;

// Scales its input's PCM frames in place by a volume factor, with mute and
// the same soft limiter as the mixer.
class SonraVolumeNode : public SonraNode {
public:
    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraVolumeNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration, unsigned sampleRate);
    ~SonraVolumeNode() override;

    // A value within 0.001 of 1.0 is stored as exactly 1.0. Every call
    // returns the limiter gain to 1.0.
    void setVolume(float volume);
    // The gain setVolume() set.
    float volume() const;
    // A muted node outputs silence; the volume is kept.
    void setMuted(bool muted);
    // Whether setMuted(true) is in force.
    bool isMuted() const;

    void timerTick() override;
    void reset(unsigned offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraVolumeNode_p> d;
};

} // namespace ombrel

#endif
