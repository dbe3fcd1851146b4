#ifndef OMBREL_SONRAG711DECNODE_H
#define OMBREL_SONRAG711DECNODE_H

#include "sonrabase.h"

#include <cstdint>

namespace ombrel {

struct SonraG711DecNode_p;

// Decodes each G.711 byte of its input into one 16-bit PCM sample at
// 8000 Hz.
class SonraG711DecNode : public SonraNode {
public:
    enum Mode : int32_t {
        MODE_ALAW = 1, // G.711 A-law, the default
        MODE_ULAW = 2  // G.711 mu-law
    };

    static constexpr unsigned G711_RATE = 8000; // Hz, the only sample rate

    SonraG711DecNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration, unsigned sampleRate);
    ~SonraG711DecNode() override;

    // Takes effect from the next frame on. Safe to call from another thread
    // while the graph runs: a frame is converted wholly in one mode. Any
    // value other than MODE_ALAW selects mu-law.
    void setMode(Mode mode);
    Mode mode() const;

    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraG711DecNode_p> d;
};

} // namespace ombrel

#endif
