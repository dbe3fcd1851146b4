#ifndef OMBREL_SONRAFILEREADERNODE_H
#define OMBREL_SONRAFILEREADERNODE_H

#include "sonrabase.h"
#include "sonravsndfile.h"

#include <boost/function.hpp>

#include <string>

namespace ombrel {

struct SonraFileReaderNode_p;

// Plays a sound file into the graph, one graph frame per doProcess(), with
// the file's own channel count: any format libsndfile reads, read block by
// block through the owner's SonraVSndFileVfs and converted to the graph's
// sample rate by SpeexDSP (quality 5) when the rates differ. The last,
// partial block is padded with silence; the frame after it stops the node
// and reports -4 to the completion callback. A source: it has no input.
//
//     reader->setVSndFile(boost::make_shared<SonraPlainVSndFileVfs>());
//     unsigned channels = 0, seconds = 0;
//     if (reader->start("/path/music.flac", channels, seconds, [](int code) { ... }) == 0) ...
//
// Control operations are the owner's; doProcess() and the callback at the
// end of the file run on the graph's thread: serialise the two.
class SonraFileReaderNode : public SonraNode {
public:
    // start() results
    enum { START_OK = 0, START_OPEN_REFUSED = -1, START_FAILED = -2 };
    // Codes the completion callback receives from the node itself.
    enum { CODE_FAILED = -2, CODE_FINISHED = -4 };

    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraFileReaderNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration,
                        unsigned sampleRate);
    // Stops with -4.
    ~SonraFileReaderNode() override;

    // Does nothing: a restarting stream does not move the file.
    void reset(unsigned offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

    // Where start() finds its files; required before start().
    void setVSndFile(boost::shared_ptr<SonraVSndFileVfs> vfs);
    // Ends any file playing (its callback gets -4) and starts `fileName`.
    // Returns 0 and gives the file's channel count (also set as the node's
    // output channels) and its whole seconds; -1 when the SonraVSndFileVfs
    // refuses the name (the callback is not installed); -2 when libsndfile
    // cannot open the file (warning on "audio2"), or it holds no frames or
    // channels, or its rate is too low for one frame a graph frame or above
    // 384 kHz, or the resampler fails (then `finishedCallback` already got -2).
    int start(const std::string& fileName, unsigned& channels, unsigned& duration,
              boost::function<void (int)> finishedCallback);
    // Closes the file and reports `code` to the callback (once per start()).
    void stop(int code);
    // Output pauses (empty frames) without moving the file.
    void pause();
    // Output continues where pause() left it.
    void resume();
    // Moves to `seconds` from the file's start; a position past the end
    // changes nothing.
    void seek(unsigned seconds);
    // The playing file's name; empty once stopped.
    std::string fileName() const;

private:
    int openFile(unsigned& channels, unsigned& duration);
    void readResampled(std::vector<char>& out);
    void readBlock(char* into, uint32_t frames);

    boost::scoped_ptr<SonraFileReaderNode_p> d;
};

} // namespace ombrel

#endif
