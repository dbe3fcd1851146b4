#ifndef OMBREL_SONRAG711ENCNODE_H
#define OMBREL_SONRAG711ENCNODE_H

#include "sonrabase.h"

#include <cstdint>

namespace ombrel {

struct SonraG711EncNode_p;

// Encodes each 16-bit PCM sample of its input (8000 Hz, any channel count,
// interleaved channels are encoded like mono) into one G.711 byte. A
// trailing odd byte is ignored.
class SonraG711EncNode : public SonraNode {
public:
    // The G.711 law.
    enum Mode : int32_t {
        MODE_ALAW = 1, // G.711 A-law, the default
        MODE_ULAW = 2  // G.711 mu-law
    };

    static constexpr unsigned G711_RATE = 8000; // Hz, the only sample rate

    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraG711EncNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration, unsigned sampleRate);
    ~SonraG711EncNode() override;

    // Takes effect from the next frame on. Safe to call from another thread
    // while the graph runs: a frame is converted wholly in one mode. Any
    // value other than MODE_ALAW selects mu-law.
    void setMode(Mode mode);
    // The law setMode() chose.
    Mode mode() const;

    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::scoped_ptr<SonraG711EncNode_p> d;
};

} // namespace ombrel

#endif
