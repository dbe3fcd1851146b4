#ifndef OMBREL_SONRAMEMORYVSNDFILEVFS_H
#define OMBREL_SONRAMEMORYVSNDFILEVFS_H

#include "sonravsndfile.h"

#include <boost/enable_shared_from_this.hpp>
#include <boost/scoped_ptr.hpp>

#include <vector>

namespace ombrel {

struct SonraMemoryVSndFileVfs_p;

// File access over named byte buffers held in memory: sounds shipped inside
// an application, recordings kept for upload, arbitrary bytes under test.
// open(name, VFS_READ) serves a stored buffer; open(name, VFS_WRITE)
// creates (or empties) one, which file(name) returns once written. One file
// is open at a time; a new open() closes the previous one.
//
// Like SonraPlainVSndFileVfs it is its own provider; create it with
// boost::make_shared:
//
//     auto sounds = boost::make_shared<SonraMemoryVSndFileVfs>("ring.ogg", ringBytes);
//     player->setVSndFile(sounds.get());
//     player->start("ring.ogg", channels, onDone, false);
class SonraMemoryVSndFileVfs : public SonraVSndFileVfs,
                               public SonraVSndFile,
                               public boost::enable_shared_from_this<SonraMemoryVSndFileVfs> {
public:
    SonraMemoryVSndFileVfs();
    // Starts with one stored file.
    SonraMemoryVSndFileVfs(const std::string& fileName, std::vector<char> bytes);
    ~SonraMemoryVSndFileVfs() override;

    // Stores (or replaces) the bytes of `fileName`; closes the open file if
    // it is that one.
    void setFile(const std::string& fileName, std::vector<char> bytes);
    // The bytes stored under `fileName`; empty when there is none.
    std::vector<char> file(const std::string& fileName) const;
    // Whether bytes are stored under `fileName`.
    bool hasFile(const std::string& fileName) const;

    bool open(const std::string& fileName, int mode) override;
    void close() override;
    boost::shared_ptr<SF_VIRTUAL_IO> virtualIo() override;
    // This object itself, shared.
    boost::shared_ptr<SonraVSndFileVfs> vfs() override;

private:
    friend struct SonraMemoryVSndFileVfs_p;
    boost::scoped_ptr<SonraMemoryVSndFileVfs_p> d;
};

} // namespace ombrel

#endif
