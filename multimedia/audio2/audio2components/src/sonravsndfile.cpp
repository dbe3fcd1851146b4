#include "sonravsndfile.h"

namespace ombrel {

SonraVSndFileVfs::~SonraVSndFileVfs() = default;

SonraVSndFile::~SonraVSndFile() = default;

} // namespace ombrel
