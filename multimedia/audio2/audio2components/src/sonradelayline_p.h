// The delay line the mono-to-stereo and reverb nodes share: a circular
// buffer of 16-bit samples that is kept full, so that its oldest sample is
// always the input of exactly capacity() samples ago. Work is done in
// contiguous runs instead of one push_back per sample, so that the nodes'
// inner loops stay plain array loops. Internal header, not installed.
#ifndef OMBREL_SONRADELAYLINE_P_H
#define OMBREL_SONRADELAYLINE_P_H

#include "sonracircular_p.h"

#include <boost/circular_buffer.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace ombrel {
namespace delayline {

typedef boost::circular_buffer<int16_t> Line;

// Empties the line and, for a non-zero length, makes it `length` samples of
// silence. A zero length leaves an empty line that keeps its old capacity.
inline void restart(Line& line, uint32_t length)
{
    line.clear();
    if (length == 0)
        return;
    line.set_capacity(length);
    line.insert(line.end(), length, int16_t(0));
}

// Calls visit(first, delayed, count) for consecutive runs that together
// cover positions [0, n) of the input: `delayed` points at the `count`
// samples that position `first` onwards hears delayed by the line's length.
// The line is not changed; advance() moves it on afterwards.
template <typename Visit>
void forEachDelayedRun(const Line& line, const int16_t* in, std::size_t n, Visit visit)
{
    std::size_t done = 0;
    const Line::const_array_range runs[2] = {line.array_one(), line.array_two()};
    for (const Line::const_array_range& run : runs) {
        const std::size_t count = std::min(run.second, n - done);
        if (count > 0)
            visit(done, run.first, count);
        done += count;
    }
    if (done < n)
        visit(done, in, n - done);
}

// Appends n samples to a full line, dropping as many of the oldest.
inline void advance(Line& line, const int16_t* in, std::size_t n)
{
    if (line.empty() || n == 0)
        return;
    circular::appendToFull(line, in, n);
}

// Appends n samples of silence, as a gap in the input does, so that the
// delayed signal keeps time across it.
inline void advanceSilence(Line& line, std::size_t n)
{
    const std::size_t length = line.size();
    if (length == 0 || n == 0)
        return;
    const std::size_t count = std::min(n, length);
    const Line::array_range runs[2] = {line.array_one(), line.array_two()};
    std::size_t left = count;
    for (const Line::array_range& run : runs) {
        const std::size_t part = std::min(run.second, left);
        std::fill(run.first, run.first + part, int16_t(0));
        left -= part;
    }
    if (count < length)
        line.rotate(line.begin() + static_cast<std::ptrdiff_t>(count));
}

} // namespace delayline
} // namespace ombrel

#endif
