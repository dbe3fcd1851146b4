#include "sonradevnode.h"

#include "sonraringbuffer.h"
#include "shared.h"

#include <boost/bind/bind.hpp>
#include <boost/make_shared.hpp>
#include <boost/signals2/connection.hpp>

namespace ombrel {

// ------------------------------------------------------------- SonraDevNode

SonraDevNode::SonraDevNode(Source source, boost::shared_ptr<boost::asio::io_service> ioService,
                           unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), m_source(source)
{
}

SonraDevNode::~SonraDevNode() = default;

boost::shared_ptr<std::vector<char> > SonraDevNode::doProcess()
{
    if (m_source.empty())
        return boost::shared_ptr<std::vector<char> >();
    return m_source();
}

// --------------------------------------------------- SonraDevNodesContainer

struct SonraDevNodesContainer_p {
    SonraDevNodesContainer_p(boost::shared_ptr<boost::asio::io_service> ioService, unsigned int frameDuration,
                             unsigned int sampleRate)
        : m_frameDuration(frameDuration),
          m_sampleRate(sampleRate),
          m_ioService(ioService),
          m_captureRing(0),
          m_playbackRing(0),
          m_forceUniversalDevice(false),
          m_frameSize(SonraNode::frameSize(frameDuration, sampleRate)),
          m_captureChannels(1),
          m_playbackChannels(1),
          m_started(false),
          m_aecEnabled(false)
    {
    }

    // The device's view of the container, on the device's thread.
    bool callback(const char* in, int inLength, char* out, int outLength, int status);
    boost::shared_ptr<SonraDevice> createDevice(bool capture, unsigned int sampleRate) const;

    unsigned int m_frameDuration;                           // ms
    unsigned int m_sampleRate;                              // Hz
    boost::shared_ptr<boost::asio::io_service> m_ioService; // handed to the nodes and the device
    boost::shared_ptr<SonraNode> m_captureNode;             // empty when built without capture
    boost::shared_ptr<SonraNode> m_playbackNode;
    std::string m_captureDeviceName;
    std::string m_playbackDeviceName;
    SonraRingBuffer m_captureRing;                          // bytes from the device to the graph
    SonraRingBuffer m_playbackRing;                         // bytes from the graph to the device
    boost::shared_ptr<SonraDevice> m_devicePtr;
    bool m_forceUniversalDevice;
    unsigned int m_frameSize;                               // bytes of one channel's frame
    unsigned int m_captureChannels;
    unsigned int m_playbackChannels;
    bool m_started;                                         // the device stream runs
    bool m_aecEnabled;                                      // echo cancellation wanted
    boost::weak_ptr<SonraPipe> m_pipe;                      // whose signals drive the container
    boost::signals2::connection m_cycleConnection;          // workCycle <- workCycleSignal
    boost::signals2::connection m_resetConnection;          // resetDevice <- resetSignal
    boost::shared_ptr<SonraDeviceBuilder> m_playbackDeviceBuilder;
};

bool SonraDevNodesContainer_p::callback(const char* in, int inLength, char* out, int outLength, int status)
{
    if (status != 0)
        return true;
    if (inLength > 0 && in && m_captureNode)
        m_captureRing.put(in, static_cast<unsigned int>(inLength));
    if (outLength > 0 && out)
        m_playbackRing.get(out, static_cast<unsigned int>(outLength));
    return true;
}

// Only a playback-only device may come from the builder; anything that
// captures is the universal device.
boost::shared_ptr<SonraDevice> SonraDevNodesContainer_p::createDevice(bool capture, unsigned int sampleRate) const
{
    if (!capture && m_playbackDeviceBuilder) {
        boost::shared_ptr<SonraDevice> built = m_playbackDeviceBuilder->buildDevice(capture, sampleRate);
        if (built)
            return built;
    }
    return boost::shared_ptr<SonraDevice>(new SonraUniversalDevice(sampleRate));
}

namespace {

const int NO_DEVICE = -6; // start() without a device

unsigned int countOrZero(int count)
{
    return count > 0 ? static_cast<unsigned int>(count) : 0u;
}

} // namespace

const unsigned int SonraDevNodesContainer::DEFAULT_RINGBUF_DURATION;

SonraDevNodesContainer::SonraDevNodesContainer(boost::shared_ptr<boost::asio::io_service> ioService,
                                               unsigned int frameDuration, unsigned int ringBufferDuration,
                                               unsigned int sampleRate)
    : d(boost::make_shared<SonraDevNodesContainer_p>(ioService, frameDuration, sampleRate))
{
    // Room for ringBufferDuration ms of one channel of 16-bit samples; the
    // product wraps as unsigned 32-bit arithmetic does.
    const unsigned int ringBytes = 2 * ((ringBufferDuration * d->m_sampleRate) / 1000);
    d->m_captureRing.setSize(ringBytes);
    d->m_playbackRing.setSize(ringBytes);
}

SonraDevNodesContainer::~SonraDevNodesContainer()
{
    stop();
}

void SonraDevNodesContainer::create(bool withCapture, bool aecEnabled)
{
    // The nodes call back into the container without owning it.
    d->m_playbackNode = boost::make_shared<SonraDevNode>(
        boost::bind(&SonraDevNodesContainer::processPlayback, this), d->m_ioService, d->m_frameDuration,
        d->m_sampleRate);
    if (withCapture)
        d->m_captureNode = boost::make_shared<SonraDevNode>(
            boost::bind(&SonraDevNodesContainer::processCapture, this), d->m_ioService, d->m_frameDuration,
            d->m_sampleRate);
    d->m_devicePtr = d->createDevice(withCapture, d->m_sampleRate);
    d->m_aecEnabled = aecEnabled;
    d->m_devicePtr->aecEnabled = d->m_aecEnabled;
}

void SonraDevNodesContainer::setPipe(boost::shared_ptr<SonraPipe> pipe)
{
    d->m_pipe = pipe;
}

void SonraDevNodesContainer::setPlaybackDeviceBuilder(boost::shared_ptr<SonraDeviceBuilder> builder)
{
    d->m_playbackDeviceBuilder = builder;
}

void SonraDevNodesContainer::setPlaybackDevice(const std::string& name)
{
    d->m_playbackDeviceName = name;
}

void SonraDevNodesContainer::setCaptureDevice(const std::string& name)
{
    d->m_captureDeviceName = name;
}

void SonraDevNodesContainer::forceUniversalDevice(bool flag)
{
    d->m_forceUniversalDevice = flag;
}

bool SonraDevNodesContainer::hasVoicePreprocessor() const
{
    SONRA_ASSERT(d->m_devicePtr);
    return d->m_devicePtr->hasVoicePreprocessor();
}

boost::shared_ptr<SonraNode> SonraDevNodesContainer::playback() const
{
    return d->m_playbackNode;
}

boost::shared_ptr<SonraNode> SonraDevNodesContainer::capture() const
{
    return d->m_captureNode;
}

boost::shared_ptr<SonraDevice> SonraDevNodesContainer::device() const
{
    return d->m_devicePtr;
}

boost::shared_ptr<SonraDevice> SonraDevNodesContainer::createRawDevice(unsigned int sampleRate, bool capture) const
{
    return d->createDevice(capture, sampleRate);
}

std::vector<boost::shared_ptr<SonraDeviceInfo> > SonraDevNodesContainer::devices(SonraDeviceInfo::DeviceType type)
{
    const bool capture = (static_cast<unsigned int>(type) & SonraDeviceInfo::CAPTURE) != 0;
    const boost::shared_ptr<SonraDevice> probe = d->createDevice(capture, SonraNode::DEFAULT_SAMPLE_RATE);
    if (!probe)
        return std::vector<boost::shared_ptr<SonraDeviceInfo> >();
    return probe->devices(type);
}

int SonraDevNodesContainer::start(int playbackChannels, int captureChannels, std::string* errorMessage)
{
    if (d->m_started)
        stop();

    // The slots share ownership of the container, so it lives as long as
    // the pipe can still signal it.
    if (!d->m_cycleConnection.connected()) {
        const boost::shared_ptr<SonraPipe> pipe = d->m_pipe.lock();
        if (pipe)
            d->m_cycleConnection =
                pipe->workCycleSignal.connect(boost::bind(&SonraDevNodesContainer::workCycle, shared_from_this()));
    }
    if (!d->m_resetConnection.connected()) {
        const boost::shared_ptr<SonraPipe> pipe = d->m_pipe.lock();
        if (pipe)
            d->m_resetConnection =
                pipe->resetSignal.connect(boost::bind(&SonraDevNodesContainer::resetDevice, shared_from_this()));
    }

    d->m_playbackChannels = countOrZero(playbackChannels);
    d->m_captureChannels = countOrZero(captureChannels);
    std::string message = "Device not ready";
    int result = NO_DEVICE;
    if (d->m_devicePtr) {
        SonraStreamConfiguration configuration;
        configuration.frameDuration = d->m_frameDuration;
        configuration.sampleRate = d->m_sampleRate;
        configuration.playbackChannels = d->m_playbackChannels;
        configuration.ioService = d->m_ioService;
        configuration.playbackDevice = d->m_playbackDeviceName;
        if (d->m_captureNode) {
            configuration.captureDevice = d->m_captureDeviceName;
            configuration.captureChannels = d->m_captureChannels;
            debug("audio2", 0, false) << "Capture, channels=" << d->m_captureChannels << " aec enabled="
                                      << d->m_devicePtr->aecEnabled;
        }
        // The callback shares the record: the rings outlive the container
        // for as long as the device may call back.
        const boost::shared_ptr<SonraDevNodesContainer_p> record = d;
        const SonraDevice::Callback callback = [record](const char* in, int inLength, char* out, int outLength,
                                                        int status) {
            return record->callback(in, inLength, out, outLength, status);
        };
        result = d->m_devicePtr->start(configuration, callback, &message);
    }

    if (result == 0)
        d->m_started = true;
    else
        warning("audio2", false) << "Failed to open audio device stream in audio device container, code=" << result;
    if (errorMessage)
        *errorMessage = message;
    return result;
}

void SonraDevNodesContainer::stop()
{
    if (d->m_cycleConnection.connected())
        d->m_cycleConnection.disconnect();
    if (d->m_resetConnection.connected())
        d->m_resetConnection.disconnect();
    if (d->m_devicePtr)
        d->m_devicePtr->stop();
    d->m_started = false;
}

void SonraDevNodesContainer::resetDevice()
{
    if (d->m_devicePtr)
        d->m_devicePtr->reset();
    d->m_playbackRing.reset();
    d->m_captureRing.reset();
}

void SonraDevNodesContainer::workCycle()
{
    if (d->m_devicePtr)
        d->m_devicePtr->workCycle();
}

boost::shared_ptr<std::vector<char> > SonraDevNodesContainer::processCapture()
{
    if (!d->m_captureNode)
        return boost::shared_ptr<std::vector<char> >();
    const unsigned int size = d->m_captureChannels * d->m_frameSize;
    const boost::shared_ptr<std::vector<char> > frame = boost::make_shared<std::vector<char> >(size);
    d->m_captureRing.get(frame->data(), size);
    return frame;
}

boost::shared_ptr<std::vector<char> > SonraDevNodesContainer::processPlayback()
{
    if (d->m_playbackNode) {
        const std::vector<unsigned> indexes = d->m_playbackNode->inputIndexes();
        if (!indexes.empty()) {
            const boost::shared_ptr<std::vector<char> > frame = d->m_playbackNode->getInputData(indexes.front());
            if (frame && !frame->empty())
                d->m_playbackRing.put(frame->data(), static_cast<unsigned int>(frame->size()));
        }
    }
    return boost::shared_ptr<std::vector<char> >();
}

} // namespace ombrel
