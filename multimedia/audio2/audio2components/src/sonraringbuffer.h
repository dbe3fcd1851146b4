#ifndef OMBREL_SONRARINGBUFFER_H
#define OMBREL_SONRARINGBUFFER_H

#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>

namespace ombrel {

struct SonraRingBuffer_p;

// A fixed-capacity byte FIFO guarded by its own mutex, the hand-over point
// between a sound device's thread and the graph's thread. It never waits: a
// writer that outruns the reader overwrites the oldest bytes, a reader that
// outruns the writer gets zeros after the real bytes. Sizes are in bytes.
class SonraRingBuffer : private boost::noncopyable {
public:
    // `size`: bytes the ring holds.
    explicit SonraRingBuffer(unsigned int size);
    virtual ~SonraRingBuffer();

    // Changes the capacity, keeping the oldest bytes that still fit.
    void setSize(unsigned int size);
    // Appends `length` bytes; once full, each new byte replaces the oldest.
    void put(const char* data, unsigned int length);
    // Fills all `length` bytes of `data`: the oldest held bytes first, then
    // zeros. Returns the number of real bytes delivered.
    unsigned int get(char* data, unsigned int length);
    // Discards everything held; the capacity stays.
    void reset();

private:
    boost::scoped_ptr<SonraRingBuffer_p> d;
};

} // namespace ombrel

#endif
