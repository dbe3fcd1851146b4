// Sole owners of C library handles (libopus, SpeexDSP): a unique_ptr whose
// deleter is the library's own destroy function, so that a private record
// releases its handles however it goes away, and a null handle is never
// handed to the destroy function. Internal header, not installed.
#ifndef OMBREL_SONRAHANDLE_P_H
#define OMBREL_SONRAHANDLE_P_H

#include <memory>

namespace ombrel {

template <typename Handle, void (*destroy)(Handle*)>
struct HandleDestroyer {
    void operator()(Handle* handle) const { destroy(handle); }
};

template <typename Handle, void (*destroy)(Handle*)>
using OwnedHandle = std::unique_ptr<Handle, HandleDestroyer<Handle, destroy> >;

} // namespace ombrel

#endif
