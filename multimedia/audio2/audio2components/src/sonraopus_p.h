// What the Opus encoder and decoder nodes share: their owned libopus
// handles, created or null, and the frames libopus can take. Internal
// header, not installed.
#ifndef OMBREL_SONRAOPUS_P_H
#define OMBREL_SONRAOPUS_P_H

#include "sonrahandle_p.h"

#include <boost/shared_ptr.hpp>

#include <opus.h>

#include <cstddef>
#include <limits>
#include <vector>

namespace ombrel {
namespace opus {

typedef boost::shared_ptr<std::vector<char> > Frame;
typedef OwnedHandle<OpusEncoder, opus_encoder_destroy> EncoderPtr;
typedef OwnedHandle<OpusDecoder, opus_decoder_destroy> DecoderPtr;

// Mono, VoIP application. Null when libopus refuses the rate (it takes
// 8000, 12000, 16000, 24000 and 48000 Hz).
inline EncoderPtr createEncoder(unsigned sampleRate)
{
    int error = OPUS_OK;
    EncoderPtr encoder(opus_encoder_create(static_cast<opus_int32>(sampleRate), 1, OPUS_APPLICATION_VOIP, &error));
    if (error != OPUS_OK)
        encoder.reset();
    return encoder;
}

// Mono. Null when libopus refuses the rate.
inline DecoderPtr createDecoder(unsigned sampleRate)
{
    int error = OPUS_OK;
    DecoderPtr decoder(opus_decoder_create(static_cast<opus_int32>(sampleRate), 1, &error));
    if (error != OPUS_OK)
        decoder.reset();
    return decoder;
}

// Back to the state of a new stream; the settings stay.
inline void resetState(OpusEncoder* encoder)
{
    if (encoder)
        opus_encoder_ctl(encoder, OPUS_RESET_STATE);
}

inline void resetState(OpusDecoder* decoder)
{
    if (decoder)
        opus_decoder_ctl(decoder, OPUS_RESET_STATE);
}

// libopus counts bytes in signed 32 bits.
const std::size_t MAX_BYTES = static_cast<std::size_t>(std::numeric_limits<opus_int32>::max());

// A frame with something libopus can be handed: present, not empty, and
// short enough for its byte counts. Anything else gives no output and
// leaves the codec's state untouched.
inline bool isCodable(const Frame& frame)
{
    return frame && !frame->empty() && frame->size() <= MAX_BYTES;
}

inline const unsigned char* bytesOf(const std::vector<char>& frame)
{
    return reinterpret_cast<const unsigned char*>(frame.data());
}

} // namespace opus
} // namespace ombrel

#endif
