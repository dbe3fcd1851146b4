#include "sonraopusdecnode.h"

#include "shared.h"
#include "sonraopus_p.h"

#include <boost/make_shared.hpp>

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

void SonraOpusDecNode::reset(unsigned /*offset*/)
{
    opus::resetState(d->m_decoderPtr.get());
    d->m_started = false;
    d->m_concealed = 0;
    d->m_heldPacket.reset();
}

boost::shared_ptr<std::vector<char> > SonraOpusDecNode::doProcess()
{
    if (!d->m_decoderPtr)
        return Frame();
    Frame input = getInputData();
    if (!opus::isCodable(input))
        input.reset();
    if (!d->m_fecRecovery)
        return decodeSlot(*d, input, Frame());
    const Frame packet = d->m_heldPacket;
    d->m_heldPacket = input;
    return decodeSlot(*d, packet, input);
}

} // namespace ombrel
