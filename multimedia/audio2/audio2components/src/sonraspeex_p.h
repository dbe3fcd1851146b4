// Sole owners of SpeexDSP states. Internal header, not installed.
#ifndef OMBREL_SONRASPEEX_P_H
#define OMBREL_SONRASPEEX_P_H

#include "sonrahandle_p.h"

#include <speex/speex_preprocess.h>
#include <speex/speex_resampler.h>

namespace ombrel {
namespace speex {

typedef OwnedHandle<SpeexResamplerState, speex_resampler_destroy> ResamplerPtr;
typedef OwnedHandle<SpeexPreprocessState, speex_preprocess_state_destroy> PreprocessPtr;

} // namespace speex
} // namespace ombrel

#endif
