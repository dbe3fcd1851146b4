#include "sonraringbuffer.h"

#include "sonracircular_p.h"

#include <boost/circular_buffer.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>

#include <algorithm>
#include <cstring>

namespace ombrel {

struct SonraRingBuffer_p {
    boost::circular_buffer<char> m_buffer; // capacity = ring size, bytes; oldest byte first
    boost::mutex m_mutex;                  // guards m_buffer for every operation
};

namespace {

typedef boost::circular_buffer<char> ByteRing;

// Copies the `length` oldest bytes out in at most two block copies.
void readOldest(const ByteRing& ring, char* data, ByteRing::size_type length)
{
    const ByteRing::const_array_range one = ring.array_one();
    const ByteRing::size_type piece = std::min(length, one.second);
    std::memcpy(data, one.first, piece);
    if (length > piece)
        std::memcpy(data + piece, ring.array_two().first, length - piece);
}

// Makes `data` the whole content. Growing a circular_buffer constructs its
// elements one by one; a constant fill of a fresh, contiguous content is
// the one growth that compiles to block stores, and one block copy follows.
void replaceContent(ByteRing& ring, const char* data, ByteRing::size_type length)
{
    ring.assign(ring.capacity(), length, 0);
    std::memcpy(ring.array_one().first, data, length);
}

// Up to this many held bytes, appending rebuilds the content from a copy on
// the stack (block copies and a vectorised fill) rather than letting the
// circular_buffer grow element by element.
const std::size_t REBUILD_LIMIT = 4096; // bytes

void appendByRebuilding(ByteRing& ring, const char* data, ByteRing::size_type length)
{
    char held[REBUILD_LIMIT];
    const ByteRing::size_type heldLength = ring.size();
    readOldest(ring, held, heldLength);
    ring.assign(ring.capacity(), heldLength + length, 0);
    char* content = ring.array_one().first;
    std::memcpy(content, held, heldLength);
    std::memcpy(content + heldLength, data, length);
}

} // namespace

SonraRingBuffer::SonraRingBuffer(unsigned int size)
    : d(new SonraRingBuffer_p)
{
    setSize(size);
}

SonraRingBuffer::~SonraRingBuffer() = default;

void SonraRingBuffer::setSize(unsigned int size)
{
    boost::lock_guard<boost::mutex> lock(d->m_mutex);
    if (size == d->m_buffer.capacity())
        return;
    // New storage keeps the oldest bytes that fit and drops the newest.
    d->m_buffer.set_capacity(size);
}

// The result is that of appending byte by byte with overwrite of the oldest
// byte when full: the ring ends up holding the newest min(capacity, held +
// length) bytes of (old content, data). Dropping the overwritten bytes is
// O(1) for a byte ring, and the common cases copy whole blocks.
void SonraRingBuffer::put(const char* data, unsigned int length)
{
    boost::lock_guard<boost::mutex> lock(d->m_mutex);
    ByteRing& ring = d->m_buffer;
    const ByteRing::size_type capacity = ring.capacity();
    if (capacity == 0 || length == 0)
        return;

    if (length >= capacity) {
        // Nothing old survives; only the input's last `capacity` bytes do.
        replaceContent(ring, data + (length - capacity), capacity);
        return;
    }
    if (ring.empty()) {
        replaceContent(ring, data, length);
        return;
    }
    if (ring.full()) {
        circular::appendToFull(ring, data, length);
        return;
    }
    const ByteRing::size_type room = capacity - ring.size();
    if (length > room)
        ring.erase_begin(length - room);
    if (ring.size() <= REBUILD_LIMIT) {
        appendByRebuilding(ring, data, length);
        return;
    }
    ring.insert(ring.end(), data, data + length);
}

unsigned int SonraRingBuffer::get(char* data, unsigned int length)
{
    boost::lock_guard<boost::mutex> lock(d->m_mutex);
    ByteRing& ring = d->m_buffer;
    const unsigned int delivered = static_cast<unsigned int>(std::min<ByteRing::size_type>(ring.size(), length));
    if (delivered > 0) {
        readOldest(ring, data, delivered);
        ring.erase_begin(delivered);
    }
    if (delivered < length)
        std::memset(data + delivered, 0, length - delivered);
    return delivered;
}

void SonraRingBuffer::reset()
{
    boost::lock_guard<boost::mutex> lock(d->m_mutex);
    d->m_buffer.clear();
}

} // namespace ombrel
