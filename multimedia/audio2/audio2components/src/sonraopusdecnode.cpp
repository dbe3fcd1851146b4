#include "sonraopusdecnode.h"

#include "shared.h"
#include "sonraopus_p.h"

#include <boost/make_shared.hpp>

#include <cstdint>

namespace ombrel {

struct SonraOpusDecNode_p {
    opus::DecoderPtr m_decoderPtr; // null only when creation failed
    uint32_t m_frameSamples = 0;   // samples per channel one packet must yield
};

SonraOpusDecNode::SonraOpusDecNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                   unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraOpusDecNode_p)
{
    d->m_decoderPtr = opus::createDecoder(sampleRate);
    SONRA_ASSERT(d->m_decoderPtr);
    d->m_frameSamples = frameSize() / 2;
}

SonraOpusDecNode::~SonraOpusDecNode() = default;

void SonraOpusDecNode::reset(unsigned /*offset*/)
{
    opus::resetState(d->m_decoderPtr.get());
}

boost::shared_ptr<std::vector<char> > SonraOpusDecNode::doProcess()
{
    typedef opus::Frame Frame;
    if (!d->m_decoderPtr)
        return Frame();
    const Frame input = getInputData();
    // A missing packet is not concealed: the decoder is not called at all.
    if (!opus::isCodable(input))
        return Frame();

    const Frame output = boost::make_shared<std::vector<char> >(frameSize());
    const int decoded = opus_decode(d->m_decoderPtr.get(), opus::bytesOf(*input),
                                    static_cast<opus_int32>(input->size()),
                                    reinterpret_cast<opus_int16*>(output->data()),
                                    static_cast<int>(d->m_frameSamples), 0);
    // An error, or a packet shorter than the graph frame, gives no frame.
    if (decoded < 0 || static_cast<uint32_t>(decoded) < d->m_frameSamples)
        return Frame();
    return output;
}

} // namespace ombrel
