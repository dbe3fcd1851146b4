#include "sonraopusdecnode.h"

#include "shared.h"
#include "sonraopus_p.h"
#include "sonrareceivernode.h"
#include "sonratimestretcher_p.h"

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include <cstdint>

namespace ombrel {

struct SonraOpusDecNode_p {
    opus::DecoderPtr m_decoderPtr;    // null only when creation failed
    uint32_t m_frameSamples = 0;      // samples per channel one packet must yield
    uint32_t m_concealmentLimit = 0;  // frames of a gap that may be concealed; 0: none
    uint32_t m_concealed = 0;         // frames of the current gap concealed so far
    bool m_started = false;           // a packet decoded since creation or the last reset
    bool m_fecRecovery = false;       // packets are held back a frame for their successor's FEC
    opus::Frame m_heldPacket;         // the previous frame's packet while FEC recovery is on
    // Time stretching, on while m_stretchSource is set:
    boost::weak_ptr<SonraReceiverNode> m_stretchSource; // whose jitter buffer asks for stretches
    boost::scoped_ptr<SonraTimeStretcher> m_stretcher;  // made when stretching is turned on
    std::vector<int16_t> m_lastOutput;                  // samples of the last frame given out
    std::vector<int16_t> m_surplus;                     // samples decoded for later periods, in order
};

namespace {

typedef opus::Frame Frame;

// One graph frame from `data` (its FEC data when `fromFec`), or concealment
// for no data. An error, or a packet shorter than the graph frame, gives
// no frame.
Frame decode(SonraOpusDecNode_p& d, const unsigned char* data, std::size_t length, bool fromFec)
{
    const Frame output = boost::make_shared<std::vector<char> >(2 * static_cast<std::size_t>(d.m_frameSamples));
    const int decoded = opus_decode(d.m_decoderPtr.get(), data, static_cast<opus_int32>(length),
                                    reinterpret_cast<opus_int16*>(output->data()),
                                    static_cast<int>(d.m_frameSamples), fromFec ? 1 : 0);
    if (decoded < 0 || static_cast<uint32_t>(decoded) < d.m_frameSamples)
        return Frame();
    return output;
}

// The frame for one packet's slot: the packet decoded, or, for a missing
// packet once the stream has started, rebuilt from the successor's FEC
// data or concealed within the limit. Nothing else calls the decoder.
Frame decodeSlot(SonraOpusDecNode_p& d, const Frame& packet, const Frame& successor)
{
    if (packet) {
        const Frame output = decode(d, opus::bytesOf(*packet), packet->size(), false);
        if (output) {
            d.m_started = true;
            d.m_concealed = 0;
        }
        return output;
    }
    if (!d.m_started)
        return Frame();
    if (successor)
        return decode(d, opus::bytesOf(*successor), successor->size(), true);
    if (d.m_concealed >= d.m_concealmentLimit)
        return Frame();
    ++d.m_concealed;
    return decode(d, nullptr, 0, false);
}

} // namespace

SonraOpusDecNode::SonraOpusDecNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                   unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraOpusDecNode_p)
{
    d->m_decoderPtr = opus::createDecoder(sampleRate);
    SONRA_ASSERT(d->m_decoderPtr);
    d->m_frameSamples = frameSize() / 2;
}

SonraOpusDecNode::~SonraOpusDecNode() = default;

void SonraOpusDecNode::setConcealment(unsigned maxDuration)
{
    d->m_concealmentLimit = frameDuration() > 0 ? maxDuration / frameDuration() : 0;
}

void SonraOpusDecNode::setFecRecovery(bool enabled)
{
    d->m_fecRecovery = enabled;
    d->m_heldPacket.reset();
}

void SonraOpusDecNode::setTimeStretching(const boost::shared_ptr<SonraReceiverNode>& source)
{
    d->m_stretchSource = source;
    if (source && !d->m_stretcher)
        d->m_stretcher.reset(new SonraTimeStretcher(sampleRate()));
    d->m_surplus.clear();
    d->m_lastOutput.clear();
}

void SonraOpusDecNode::reset(unsigned /*offset*/)
{
    opus::resetState(d->m_decoderPtr.get());
    d->m_surplus.clear();
    d->m_lastOutput.clear();
    d->m_started = false;
    d->m_concealed = 0;
    d->m_heldPacket.reset();
}

// The frame for the next packet slot, `packet` the slot's packet (maybe
// none): with FEC recovery, the held packet's, rebuilt from `packet` if
// it is missing, with `packet` held in turn.
Frame SonraOpusDecNode::decodeNext(const Frame& packet)
{
    if (!d->m_fecRecovery)
        return decodeSlot(*d, packet, Frame());
    const Frame held = d->m_heldPacket;
    d->m_heldPacket = packet;
    return decodeSlot(*d, held, packet);
}

boost::shared_ptr<std::vector<char> > SonraOpusDecNode::doProcess()
{
    if (!d->m_decoderPtr)
        return Frame();
    Frame input = getInputData();
    if (!opus::isCodable(input))
        input.reset();
    const boost::shared_ptr<SonraReceiverNode> stretchSource = d->m_stretchSource.lock();
    if (!stretchSource)
        return decodeNext(input);
    return stretchedFrame(input, stretchSource->stretchRequest());
}

// The period's frame with time stretching on: stretched audio first, held
// over from an earlier period, then what the period's packets decode to.
Frame SonraOpusDecNode::stretchedFrame(const Frame& input, const SonraJbufStretchRequest& request)
{
    const std::size_t frameSamples = d->m_frameSamples;
    if (!input && d->m_surplus.size() >= frameSamples)
        return giveOut(Frame()); // a held period, covered by the stretched frame before it
    Frame passed = request.passedOver;
    if (!opus::isCodable(passed))
        passed.reset();
    const Frame early = passed ? decodeNext(passed) : Frame();
    Frame decoded = decodeNext(input);
    if (early && decoded) {
        const Frame both = boost::make_shared<std::vector<char> >(*early);
        both->insert(both->end(), decoded->begin(), decoded->end());
        decoded = stretch(*both, frameSamples);
    } else if (early) {
        decoded = early;
    }
    if (decoded && request.expand)
        decoded = stretch(*decoded, 2 * frameSamples);
    return giveOut(decoded);
}

// `pcm` played in `outSamples` samples per channel.
Frame SonraOpusDecNode::stretch(const std::vector<char>& pcm, std::size_t outSamples)
{
    const Frame out = boost::make_shared<std::vector<char> >(2 * outSamples);
    d->m_stretcher->stretch(d->m_lastOutput, reinterpret_cast<const int16_t*>(pcm.data()), pcm.size() / 2,
                            reinterpret_cast<int16_t*>(out->data()), outSamples);
    return out;
}

// One frame out of the surplus and `decoded` (either may be empty), in order.
Frame SonraOpusDecNode::giveOut(const Frame& decoded)
{
    const std::size_t frameSamples = d->m_frameSamples;
    Frame out = decoded;
    if (!d->m_surplus.empty() || (decoded && decoded->size() > 2 * frameSamples)) {
        if (decoded) {
            const int16_t* samples = reinterpret_cast<const int16_t*>(decoded->data());
            d->m_surplus.insert(d->m_surplus.end(), samples, samples + decoded->size() / 2);
        }
        if (d->m_surplus.size() < frameSamples)
            return Frame(); // only ever whole frames are held over
        out = boost::make_shared<std::vector<char> >(2 * frameSamples);
        std::copy(d->m_surplus.begin(), d->m_surplus.begin() + static_cast<std::ptrdiff_t>(frameSamples),
                  reinterpret_cast<int16_t*>(out->data()));
        d->m_surplus.erase(d->m_surplus.begin(), d->m_surplus.begin() + static_cast<std::ptrdiff_t>(frameSamples));
    }
    if (out) {
        const int16_t* samples = reinterpret_cast<const int16_t*>(out->data());
        d->m_lastOutput.assign(samples, samples + frameSamples);
    }
    return out;
}

} // namespace ombrel
