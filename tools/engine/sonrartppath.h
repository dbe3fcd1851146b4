// What sonra-rtp's send, receive and replay share: the stream's format and
// the receive path with what it played.
#ifndef SONRA_RTPPATH_H
#define SONRA_RTPPATH_H

#include "sonrag711decnode.h"
#include "sonrag711encnode.h"
#include "sonrartpreceivernode.h"

#include <boost/make_shared.hpp>

#include <vector>

namespace sonrartp {

using namespace ombrel;

const unsigned RATE = SonraG711EncNode::G711_RATE; // Hz
const unsigned FRAME_DURATION = 20;                // ms, one packet per graph frame
const unsigned FRAME_SAMPLES = RATE * FRAME_DURATION / 1000;
// Frame periods from the first packet's arrival to the first graph frame:
// the slack for arrivals that wander against the graph's own clock, which
// SpeexDSP's buffer would otherwise buy by missing a frame first.
const double PLAYOUT_PHASE = 3;

typedef boost::shared_ptr<std::vector<char> > Frame;

typedef boost::shared_ptr<std::vector<char> > Frame;

// What the decoder plays, from its first frame on: frames it does not
// deliver become silence once a later frame shows the stream went on.
class Playout {
public:
    void frame(const Frame& pcm)
    {
        if (!pcm) {
            if (m_started)
                m_pendingSilence += FRAME_SAMPLES;
            return;
        }
        m_started = true;
        m_samples.insert(m_samples.end(), m_pendingSilence, 0);
        m_silentFrames += m_pendingSilence / FRAME_SAMPLES;
        m_pendingSilence = 0;
        const int16_t* first = reinterpret_cast<const int16_t*>(pcm->data());
        m_samples.insert(m_samples.end(), first, first + pcm->size() / 2);
        ++m_played;
    }
    const std::vector<int16_t>& samples() const { return m_samples; }
    std::size_t played() const { return m_played; }
    std::size_t silentFrames() const { return m_silentFrames; }

private:
    bool m_started = false;
    std::size_t m_pendingSilence = 0; // samples
    std::size_t m_played = 0, m_silentFrames = 0;
    std::vector<int16_t> m_samples;
};

struct ReceivePath {
    explicit ReceivePath(boost::shared_ptr<boost::asio::io_service> io)
        : receiver(boost::make_shared<SonraRtpReceiverNode>(io, FRAME_DURATION, RATE)),
          decoder(boost::make_shared<SonraG711DecNode>(io, FRAME_DURATION, RATE)),
          pipe(boost::make_shared<SonraPipe>(FRAME_DURATION))
    {
        receiver->setLossConcealment(true);
        pipe->connect(receiver, decoder);
        pipe->workCycleSignal.connect([this]() { playout.frame(decoder->outputData()); });
    }
    ~ReceivePath() { pipe->clear(); }

    boost::shared_ptr<SonraRtpReceiverNode> receiver;
    boost::shared_ptr<SonraG711DecNode> decoder;
    boost::shared_ptr<SonraPipe> pipe;
    Playout playout;
};

} // namespace sonrartp

#endif
