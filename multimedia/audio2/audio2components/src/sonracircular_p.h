// Appending to a full boost::circular_buffer in block copies, for the byte
// ring of the device bridge and the sample delay lines. Internal header,
// not installed.
#ifndef OMBREL_SONRACIRCULAR_P_H
#define OMBREL_SONRACIRCULAR_P_H

#include <boost/circular_buffer.hpp>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>

namespace ombrel {
namespace circular {

// Overwrites the `count` oldest elements (count <= size) in place with
// `data`, in at most two block copies, one per contiguous piece of storage.
template <typename T>
void overwriteOldest(boost::circular_buffer<T>& ring, const T* data, std::size_t count)
{
    static_assert(std::is_trivially_copyable<T>::value, "copied as bytes");
    const typename boost::circular_buffer<T>::array_range one = ring.array_one();
    const std::size_t piece = std::min(count, one.second);
    std::memcpy(one.first, data, piece * sizeof(T));
    if (count > piece)
        std::memcpy(ring.array_two().first, data + piece, (count - piece) * sizeof(T));
}

// Appends `count` elements to a full ring, which drops as many of the
// oldest. Exactly what push_back() one element at a time does on a full
// ring: each push overwrites the oldest element and moves the start past
// it. Here the `count` oldest are overwritten in order first, then the
// start moves past them all at once: on a full ring rotate() only moves
// the start, so the whole append costs one copy. When `count` reaches the
// size, only the last `size` elements survive, already in place.
template <typename T>
void appendToFull(boost::circular_buffer<T>& ring, const T* data, std::size_t count)
{
    const std::size_t size = ring.size();
    if (count >= size) {
        overwriteOldest(ring, data + (count - size), size);
        return;
    }
    overwriteOldest(ring, data, count);
    ring.rotate(ring.begin() + static_cast<std::ptrdiff_t>(count));
}

} // namespace circular
} // namespace ombrel

#endif
