#ifndef OMBREL_SONRAFILEWRITERNODE_H
#define OMBREL_SONRAFILEWRITERNODE_H

#include "sonrabase.h"
#include "sonravsndfile.h"

#include <string>

namespace ombrel {

struct SonraFileWriterNode_p;

// Records the frames of its single input into an Ogg Vorbis file at the
// graph's sample rate, written through the owner's SonraVSndFileVfs. A sink:
// doProcess() always returns an empty frame buffer. The input is written as
// it comes (16-bit frames of the channel count given to start(), at
// sampleRate()); it is neither resampled nor remixed.
//
//     writer->setVSndFile(boost::make_shared<SonraPlainVSndFileVfs>());
//     pipe->connect(mixer, writer);
//     writer->start("/path/call.ogg", 1);
//     ...
//     writer->stop(); // the file is complete only now
//
// A write that fails stops the recording (warning "Audio2 file writer failed
// to write data" on "audio2"); what was written stays usable and fileName()
// turns empty.
class SonraFileWriterNode : public SonraNode {
public:
    // Format written: SF_FORMAT_OGG | SF_FORMAT_VORBIS.
    static const int FILE_FORMAT = 0x200060;

    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraFileWriterNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration,
                        unsigned sampleRate);
    // Stops, finishing the file.
    ~SonraFileWriterNode() override;

    // Does nothing: a restarting stream does not move the file.
    void reset(unsigned offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

    // Where start() creates its files; required before start().
    void setVSndFile(boost::shared_ptr<SonraVSndFileVfs> vfs);
    // Finishes any recording, then creates `fileName` for `channels`
    // interleaved channels. 0 when recording has begun; -1 when the file
    // cannot be opened or created (libsndfile's refusal is logged).
    int start(const std::string& fileName, unsigned channels);
    // Finishes and closes the file.
    void stop();
    // Suspends recording and flushes what was written so far.
    void pause();
    // Recording continues into the same file.
    void resume();
    // Moves the write position to `seconds` from the start.
    void seek(unsigned seconds);
    // The file being recorded; empty once stopped.
    std::string fileName() const;

private:
    boost::scoped_ptr<SonraFileWriterNode_p> d;
};

} // namespace ombrel

#endif
