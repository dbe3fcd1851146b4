// Sole owners of SpeexDSP states, so that a node's private record releases
// them however it goes away. Internal header, not installed.
#ifndef OMBREL_SONRASPEEX_P_H
#define OMBREL_SONRASPEEX_P_H

#include <speex/speex_preprocess.h>
#include <speex/speex_resampler.h>

#include <memory>

namespace ombrel {
namespace speex {

struct ResamplerDestroyer {
    void operator()(SpeexResamplerState* state) const { speex_resampler_destroy(state); }
};

struct PreprocessDestroyer {
    void operator()(SpeexPreprocessState* state) const { speex_preprocess_state_destroy(state); }
};

typedef std::unique_ptr<SpeexResamplerState, ResamplerDestroyer> ResamplerPtr;
typedef std::unique_ptr<SpeexPreprocessState, PreprocessDestroyer> PreprocessPtr;

} // namespace speex
} // namespace ombrel

#endif
