#ifndef OMBREL_SONRAFILEPLAYNODE_H
#define OMBREL_SONRAFILEPLAYNODE_H

#include "sonrabase.h"
#include "sonravsndfile.h"

#include <boost/function.hpp>

#include <cstdint>
#include <string>

namespace ombrel {

struct SonraFilePlayNode_p;

// Plays a short sound file (a notification, a ring tone, hold music) once or
// in a loop. start() decodes the whole file into memory and converts it to
// the graph's sample rate in one pass; each doProcess() then copies one
// frame out. Converted files are padded with silence to whole frames, so a
// loop wraps without a gap. A source: it has no input; mix it in. Memory
// follows what the file yields, not what its header claims: a file that
// ends early plays what it held (with a warning), one that yields nothing
// is refused.
//
//     auto player = boost::make_shared<SonraFilePlayNode>(io, SonraFilePlayNode::DEFAULT_MAX_FILESIZE, 20, 16000);
//     unsigned channels = 0;
//     player->start("/usr/share/sounds/hold.ogg", channels, [] {}, true);
//
// Files are plain files (up to the size limit) until setVSndFile() gives a
// file-access provider. Control operations are the owner's; doProcess(),
// reset() and the callback at the end of a file played once run on the
// graph's thread: serialise the two.
class SonraFilePlayNode : public SonraNode {
public:
    // Suggested `maxFileSize`, bytes.
    static int32_t DEFAULT_MAX_FILESIZE;

    // start() results
    enum {
        START_OK = 0,
        START_TOO_LARGE = -1,   // plain file larger than maxFileSize
        START_UNREADABLE = -2,  // cannot be opened for reading, or the SonraVSndFileVfs refused it
        START_NOT_AUDIO = -3,   // libsndfile cannot open or decode it, no frames, too long, or no resampler
        START_MISSING = -4      // plain file does not exist
    };

    // `maxFileSize`: largest plain file start() accepts, in bytes.
    SonraFilePlayNode(boost::shared_ptr<boost::asio::io_service> ioService, int maxFileSize, unsigned frameDuration,
                      unsigned sampleRate);
    // Stops, calling the callback.
    ~SonraFilePlayNode() override;

    // Rewinds a playing (or idle) node to the file's start.
    void reset(unsigned offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

    // Reads files through `file->vfs()` from now on (the node keeps that
    // channel, not `file`); no size limit applies then. A null `file` goes
    // back to plain files.
    void setVSndFile(SonraVSndFile* file);
    // Loads `fileName` and plays it from its start, once or in a loop; gives
    // the file's channel count (also set as the node's output channels).
    // Replaces the loop flag and the callback (the previous callback is
    // dropped, not called). Never calls a callback; a failure leaves the node
    // silent.
    int start(const std::string& fileName, unsigned& channels, boost::function<void ()> finishedCallback,
              bool loop);
    // Ends playing and frees the samples; calls the callback once.
    void stop();
    // The name given to the last start().
    std::string fileName() const;

private:
    int checkPlainFile(const std::string& fileName) const;
    int load(const std::string& fileName, unsigned& channels);
    sf_count_t readWhole(SNDFILE* file, unsigned channels, sf_count_t headerFrames);
    bool convertRate(unsigned channels, unsigned fileRate);

    boost::scoped_ptr<SonraFilePlayNode_p> d;
};

} // namespace ombrel

#endif
