#include "sonraopusdecnode.h"

#include "shared.h"

#include <boost/make_shared.hpp>

#include <opus.h>

#include <cstdint>
#include <limits>

namespace ombrel {

struct SonraOpusDecNode_p {
    OpusDecoder* m_decoderPtr = nullptr; // owned; null only when creation failed
    uint32_t m_frameSamples = 0;          // samples per channel one packet must yield
};

namespace {

// libopus takes a packet's length as a signed 32-bit count.
const std::size_t MAX_PACKET_BYTES = static_cast<std::size_t>(std::numeric_limits<opus_int32>::max());

} // namespace

SonraOpusDecNode::SonraOpusDecNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                   unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraOpusDecNode_p)
{
    int error = OPUS_OK;
    d->m_decoderPtr = opus_decoder_create(static_cast<opus_int32>(sampleRate), 1, &error);
    if (error != OPUS_OK)
        d->m_decoderPtr = nullptr;
    SONRA_ASSERT(d->m_decoderPtr);
    d->m_frameSamples = frameSize() / 2;
}

SonraOpusDecNode::~SonraOpusDecNode()
{
    if (d->m_decoderPtr)
        opus_decoder_destroy(d->m_decoderPtr);
}

void SonraOpusDecNode::reset(unsigned /*offset*/)
{
    if (d->m_decoderPtr)
        opus_decoder_ctl(d->m_decoderPtr, OPUS_RESET_STATE);
}

boost::shared_ptr<std::vector<char> > SonraOpusDecNode::doProcess()
{
    typedef boost::shared_ptr<std::vector<char> > Frame;
    if (!d->m_decoderPtr)
        return Frame();
    const Frame input = getInputData();
    // A missing packet is not concealed: the decoder is not called at all.
    if (!input || input->empty() || input->size() > MAX_PACKET_BYTES)
        return Frame();

    const Frame output = boost::make_shared<std::vector<char> >(frameSize());
    const int decoded = opus_decode(d->m_decoderPtr, reinterpret_cast<const unsigned char*>(input->data()),
                                    static_cast<opus_int32>(input->size()),
                                    reinterpret_cast<opus_int16*>(output->data()),
                                    static_cast<int>(d->m_frameSamples), 0);
    // An error, or a packet shorter than the graph frame, gives no frame.
    if (decoded < 0 || static_cast<uint32_t>(decoded) < d->m_frameSamples)
        return Frame();
    return output;
}

} // namespace ombrel
