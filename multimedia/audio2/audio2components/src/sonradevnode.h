#ifndef OMBREL_SONRADEVNODE_H
#define OMBREL_SONRADEVNODE_H

#include "sonrabase.h"
#include "sonrauniversaldev.h"

#include <boost/function.hpp>

#include <string>
#include <vector>

namespace ombrel {

// A node whose output is whatever its callable returns: the graph's side of
// a sound device, or any other frame source.
class SonraDevNode : public SonraNode {
public:
    // Called once per graph frame for the node's output frame.
    typedef boost::function<boost::shared_ptr<std::vector<char> > ()> Source;

    // A node whose output is what `source` returns; `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraDevNode(Source source, boost::shared_ptr<boost::asio::io_service> ioService,
                 unsigned frameDuration, unsigned sampleRate);
    ~SonraDevNode() override;

    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    Source m_source;
};

struct SonraDevNodesContainer_p;

// Joins a sound device to the graph: a capture node that brings captured
// PCM into the pipe and a playback node that takes the pipe's output to the
// device, with a ring buffer in each direction between the device's thread
// and the pipe's. Own it through a shared pointer: while started, the
// pipe's signals share its ownership.
class SonraDevNodesContainer : public boost::enable_shared_from_this<SonraDevNodesContainer>,
                               private boost::noncopyable {
public:
    static const unsigned int DEFAULT_RINGBUF_DURATION = 360; // ms

    // frameDuration and ringBufferDuration in ms, sampleRate in Hz. Each
    // ring holds ringBufferDuration of one channel of 16-bit samples.
    SonraDevNodesContainer(boost::shared_ptr<boost::asio::io_service> ioService, unsigned int frameDuration,
                           unsigned int ringBufferDuration, unsigned int sampleRate);
    // Stops the stream. The rings live on while the device still holds its
    // callback.
    virtual ~SonraDevNodesContainer();

    // Builds the playback node, the capture node (withCapture) and a new
    // device; an earlier device is released, not stopped.
    void create(bool withCapture, bool aecEnabled);
    // The pipe whose reset and work-cycle signals drive the device.
    void setPipe(boost::shared_ptr<SonraPipe> pipe);
    // Asked for a device when one without capture is needed.
    void setPlaybackDeviceBuilder(boost::shared_ptr<SonraDeviceBuilder> builder);
    // The playback device's name for the next start(); empty: the default device.
    void setPlaybackDevice(const std::string& name);
    // The capture device's name for the next start(); empty: the default device.
    void setCaptureDevice(const std::string& name);
    // Recorded only: devices come from the playback builder or the universal device.
    void forceUniversalDevice(bool flag);
    // Requires a device (after create).
    bool hasVoicePreprocessor() const;

    // The node that feeds the device's playback (connect the graph's output to it).
    boost::shared_ptr<SonraNode> playback() const;
    // The node that delivers the device's capture to the graph.
    boost::shared_ptr<SonraNode> capture() const;
    // The device create() made; null before.
    boost::shared_ptr<SonraDevice> device() const;
    // A new device that the container does not keep.
    boost::shared_ptr<SonraDevice> createRawDevice(unsigned int sampleRate, bool capture) const;
    // The devices of `type` the device knows.
    std::vector<boost::shared_ptr<SonraDeviceInfo> > devices(SonraDeviceInfo::DeviceType type);

    // Connects to the pipe's signals and starts the device stream. Returns
    // 0 or the failure code (-6: no device); *errorMessage receives the
    // device's text on every return. A negative channel count counts as 0.
    int start(int playbackChannels, int captureChannels, std::string* errorMessage);
    // Stops the device's stream and lets go of the pipe's signals.
    void stop();

    // Slots of the pipe's reset and work-cycle signals.
    // @{
    void resetDevice();
    void workCycle();
    // @}

    // Sources of the playback and capture nodes, on the pipe's thread.
    // @{
    boost::shared_ptr<std::vector<char> > processPlayback();
    boost::shared_ptr<std::vector<char> > processCapture();
    // @}

private:
    boost::shared_ptr<SonraDevNodesContainer_p> d;
};

} // namespace ombrel

#endif
