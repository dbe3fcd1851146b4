#include "sonraopusencnode.h"

#include "shared.h"

#include <boost/make_shared.hpp>

#include <opus.h>

#include <cstdint>
#include <limits>

namespace ombrel {

struct SonraOpusEncNode_p {
    OpusEncoder* m_encoderPtr = nullptr; // owned; null only when creation failed
};

namespace {

// Byte counts are kept as libopus's signed 32-bit lengths.
const std::size_t MAX_INPUT_BYTES = static_cast<std::size_t>(std::numeric_limits<int32_t>::max());

} // namespace

SonraOpusEncNode::SonraOpusEncNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                   unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraOpusEncNode_p)
{
    int error = OPUS_OK;
    d->m_encoderPtr = opus_encoder_create(static_cast<opus_int32>(sampleRate), 1, OPUS_APPLICATION_VOIP, &error);
    if (error != OPUS_OK)
        d->m_encoderPtr = nullptr;
    SONRA_ASSERT(d->m_encoderPtr);
}

SonraOpusEncNode::~SonraOpusEncNode()
{
    if (d->m_encoderPtr)
        opus_encoder_destroy(d->m_encoderPtr);
}

void SonraOpusEncNode::reset(unsigned /*offset*/)
{
    if (d->m_encoderPtr)
        opus_encoder_ctl(d->m_encoderPtr, OPUS_RESET_STATE);
}

boost::shared_ptr<std::vector<char> > SonraOpusEncNode::doProcess()
{
    typedef boost::shared_ptr<std::vector<char> > Frame;
    if (!d->m_encoderPtr)
        return Frame();
    const Frame input = getInputData();
    if (!input || input->empty() || input->size() > MAX_INPUT_BYTES)
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
        const opus_int32 result = opus_encode(d->m_encoderPtr, pcm, frameSamples, packet,
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
