#ifndef OMBREL_SONRAVSNDFILE_H
#define OMBREL_SONRAVSNDFILE_H

#include <boost/shared_ptr.hpp>

#include <sndfile.h>

#include <string>

namespace ombrel {

// Modes of SonraVSndFileVfs::open().
static const int VFS_READ = 1;  // the reader and the play node
static const int VFS_WRITE = 2; // the writer: creates or truncates the file

// One file-access channel through which the file nodes reach every byte of a
// sound file, so that the owner decides where files live (plain files,
// memory, an archive...). Shared between the owner and the nodes.
//
// The nodes drive it always in this order: open(name, mode); virtualIo();
// sf_open_virtual(table, ..., this object as user_data), after which they
// drop the table (so the implementation keeps it alive while the file is
// open); reads or writes through libsndfile; sf_close; close().
class SonraVSndFileVfs {
public:
    virtual ~SonraVSndFileVfs();

    // Prepares `fileName` for access in `mode` (VFS_READ or VFS_WRITE);
    // false when the file cannot be opened.
    virtual bool open(const std::string& fileName, int mode) = 0;
    // Ends the access begun by open(); harmless when nothing is open (the
    // nodes call it on every stop).
    virtual void close() = 0;
    // libsndfile's callbacks serving the file opened last; each receives
    // this object (as SonraVSndFileVfs*) as its user_data.
    virtual boost::shared_ptr<SF_VIRTUAL_IO> virtualIo() = 0;
};

// A provider of a file-access channel, as the play node takes it.
class SonraVSndFile {
public:
    virtual ~SonraVSndFile();

    // The file access the nodes read and write through.
    virtual boost::shared_ptr<SonraVSndFileVfs> vfs() = 0;
};

} // namespace ombrel

#endif
