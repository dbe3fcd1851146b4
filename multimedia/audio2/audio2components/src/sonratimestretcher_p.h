// Plays a block of decoded speech in another time, for the Opus decoder's
// time stretching. Internal header, not installed.
#ifndef OMBREL_SONRATIMESTRETCHER_P_H
#define OMBREL_SONRATIMESTRETCHER_P_H

#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace soundtouch {
class SoundTouch;
}

namespace ombrel {

// Time-scale modification of 16-bit mono PCM with SoundTouch's WSOLA
// stretcher: the pitch stays, the duration changes. Each call is one block
// on its own, so that nothing lags: SoundTouch is cleared, fed the end of
// what was played before (its first overlap fades in from silence there,
// out of hearing), the block, and the block's end mirrored (so that the
// silence its flush appends falls after the part kept), and flushed. The
// result's start and end are then cross-faded into the block's own first
// and last samples, so that it joins what was played before and what plays
// after without a step.
class SonraTimeStretcher : private boost::noncopyable {
public:
    explicit SonraTimeStretcher(unsigned sampleRate); // Hz
    ~SonraTimeStretcher();

    // `block` played in `outSamples` samples, into `out`. `history` holds
    // the samples played right before the block, the latest last; only its
    // last CONTEXT_MS are used.
    void stretch(const std::vector<int16_t>& history, const int16_t* block, std::size_t blockSamples, int16_t* out,
                 std::size_t outSamples);

    static const unsigned CONTEXT_MS = 10;  // ms of history fed before the block
    static const unsigned PADDING_MS = 20;  // ms of the block's end fed again, mirrored, after it
    static const unsigned CROSSFADE_MS = 4; // ms of each end joined to the block's own samples

private:
    unsigned m_sampleRate; // Hz
    boost::scoped_ptr<soundtouch::SoundTouch> m_stretcher;
    std::vector<int16_t> m_input;   // history's end, the block, its end mirrored
    std::vector<int16_t> m_output;  // what SoundTouch gives back
};

} // namespace ombrel

#endif
