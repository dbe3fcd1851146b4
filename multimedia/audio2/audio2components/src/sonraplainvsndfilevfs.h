#ifndef OMBREL_SONRAPLAINVSNDFILEVFS_H
#define OMBREL_SONRAPLAINVSNDFILEVFS_H

#include "sonravsndfile.h"

#include <boost/enable_shared_from_this.hpp>
#include <boost/scoped_ptr.hpp>

namespace ombrel {

struct SonraPlainVSndFileVfs_p;

// File access over the plain file system: the names given to open() are
// paths. One file is open at a time; a new open() closes the previous one.
//
// It is its own provider too, for the play node; create it with
// boost::make_shared, since vfs() hands out shared ownership of itself:
//
//     auto files = boost::make_shared<SonraPlainVSndFileVfs>();
//     reader->setVSndFile(files);   // reader and writer take the channel
//     player->setVSndFile(files.get()); // the play node takes the provider
class SonraPlainVSndFileVfs : public SonraVSndFileVfs,
                              public SonraVSndFile,
                              public boost::enable_shared_from_this<SonraPlainVSndFileVfs> {
public:
    SonraPlainVSndFileVfs();
    ~SonraPlainVSndFileVfs() override;

    // VFS_READ opens an existing file; VFS_WRITE creates or truncates one.
    bool open(const std::string& fileName, int mode) override;
    void close() override;
    boost::shared_ptr<SF_VIRTUAL_IO> virtualIo() override;
    // This object itself, shared.
    boost::shared_ptr<SonraVSndFileVfs> vfs() override;

private:
    friend struct SonraPlainVSndFileVfs_p;
    boost::scoped_ptr<SonraPlainVSndFileVfs_p> d;
};

} // namespace ombrel

#endif
