#ifndef OMBREL_SONRAVOICECHANGENODE_H
#define OMBREL_SONRAVOICECHANGENODE_H

#include "sonrabase.h"

#include <cstdint>

namespace ombrel {

struct SonraVoiceChangeNode_p;

// Disguises a voice by shifting its pitch, not its tempo, with SoundTouch.
// The normal voice, or a node built without a pitch shifter, passes every
// frame through untouched (the very same frame buffer).
class SonraVoiceChangeNode : public SonraNode {
public:
    // The voices setVoiceType() offers.
    enum Voice : int32_t {
        NORMAL = 0,
        LOWER = 1,
        LOWEST = 2,
        HIGHER = 3,
        HIGHEST = 4
    };

    // Pitch factor of each voice (frequency ratio), read at each
    // setVoiceType(); any other Voice value takes PITCH_NORMAL.
    // @{
    static float PITCH_NORMAL;
    static float PITCH_LOWER;
    static float PITCH_LOWEST;
    static float PITCH_HIGHER;
    static float PITCH_HIGHEST;
    // @}

    // `enabled` false builds no pitch shifter: the node then stays a
    // pass-through for its whole life.
    SonraVoiceChangeNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration,
                         unsigned sampleRate, bool enabled);
    ~SonraVoiceChangeNode() override;

    // Takes effect from the next frame; ignored without a pitch shifter.
    void setVoiceType(Voice voice);
    // The voice setVoiceType() chose.
    Voice voiceType() const;

    // Drops every sample the pitch shifter holds.
    void reset(unsigned offset) override;
    // SoundTouch takes 1 to 16 channels; another count throws its
    // std::runtime_error and leaves the shifter at its previous count.
    void doSetOutputChannels(unsigned channels) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraVoiceChangeNode_p> d;
};

} // namespace ombrel

#endif
