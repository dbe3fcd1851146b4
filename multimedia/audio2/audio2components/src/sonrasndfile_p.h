// Sole owner of a libsndfile handle, so that a node's private record closes
// it however it goes away. Internal header, not installed.
#ifndef OMBREL_SONRASNDFILE_P_H
#define OMBREL_SONRASNDFILE_P_H

#include <sndfile.h>

#include <memory>

namespace ombrel {
namespace sndfile {

struct Closer {
    void operator()(SNDFILE* file) const { sf_close(file); }
};

typedef std::unique_ptr<SNDFILE, Closer> FilePtr;

} // namespace sndfile
} // namespace ombrel

#endif
