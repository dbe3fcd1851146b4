#include "sonraopusencnode.h"

#include "shared.h"
#include "sonraopus_p.h"

#include <boost/make_shared.hpp>

#include <cstdint>

namespace ombrel {

struct SonraOpusEncNode_p {
    opus::EncoderPtr m_encoderPtr; // null only when creation failed
};

SonraOpusEncNode::SonraOpusEncNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                   unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraOpusEncNode_p)
{
    d->m_encoderPtr = opus::createEncoder(sampleRate);
    SONRA_ASSERT(d->m_encoderPtr);
}

SonraOpusEncNode::~SonraOpusEncNode() = default;

int SonraOpusEncNode::setInbandFec(unsigned expectedLossPercent)
{
    if (!d->m_encoderPtr)
        return OPUS_INVALID_STATE;
    if (expectedLossPercent > 100)
        return OPUS_BAD_ARG;
    const int percent = static_cast<int>(expectedLossPercent);
    const int result = opus_encoder_ctl(d->m_encoderPtr.get(), OPUS_SET_PACKET_LOSS_PERC(percent));
    if (result != OPUS_OK)
        return result;
    return opus_encoder_ctl(d->m_encoderPtr.get(), OPUS_SET_INBAND_FEC(percent > 0 ? 1 : 0));
}

void SonraOpusEncNode::reset(unsigned /*offset*/)
{
    opus::resetState(d->m_encoderPtr.get());
}

boost::shared_ptr<std::vector<char> > SonraOpusEncNode::doProcess()
{
    typedef opus::Frame Frame;
    if (!d->m_encoderPtr)
        return Frame();
    const Frame input = getInputData();
    if (!opus::isCodable(input))
        return Frame();

    // The output can be no longer than the PCM it encodes, which bounds
    // every packet.
    const Frame output = boost::make_shared<std::vector<char> >(input->size());
    const int32_t inputLength = static_cast<int32_t>(input->size()); // bytes
    const int32_t frameBytes = static_cast<int32_t>(frameSize());     // bytes of one Opus frame
    const int frameSamples = static_cast<int>(frameSize() / 2);       // samples per channel
    int32_t remaining = inputLength; // bytes not yet encoded
    int32_t written = 0;             // bytes of packets in the output

    // Only whole frames: libopus reads frameSamples samples whatever is left.
    while (frameBytes > 0 && remaining >= frameBytes) {
        const opus_int16* pcm = reinterpret_cast<const opus_int16*>(input->data() + (inputLength - remaining));
        unsigned char* packet = reinterpret_cast<unsigned char*>(output->data() + written);
        const opus_int32 result = opus_encode(d->m_encoderPtr.get(), pcm, frameSamples, packet,
                                              static_cast<opus_int32>(output->size()) - written);
        if (result <= 0)
            break;
        written += result;
        remaining -= frameBytes;
    }

    if (written == 0)
        return Frame();
    output->resize(static_cast<std::size_t>(written));
    return output;
}

} // namespace ombrel
