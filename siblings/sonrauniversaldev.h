// Device library of the family: sound devices on PortAudio and a virtual
// device that needs no hardware.
#ifndef OMBREL_SONRAUNIVERSALDEV_H
#define OMBREL_SONRAUNIVERSALDEV_H

#include "sonraechocanceller.h"
#include "sonraechoroom.h"

#include <boost/asio/io_service.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/function.hpp>
#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>
#include <boost/shared_ptr.hpp>

#include <string>
#include <vector>

namespace ombrel {

// One sound device as the device library sees it.
class SonraDeviceInfo {
public:
    // Bit 1 (CAPTURE) asks for capture devices; without it, playback devices.
    enum DeviceType { PLAYBACK = 1, CAPTURE = 2 };

    // A device as the sound system describes it.
    SonraDeviceInfo(const std::string& name, const std::string& hostApi, unsigned maxChannels,
                    double defaultSampleRate, bool isDefault, bool isVirtual);
    virtual ~SonraDeviceInfo();

    // The name to give to a stream configuration to choose this device.
    const std::string& name() const { return m_name; }
    // The sound system the device belongs to ("ALSA", "JACK", ..., "virtual").
    const std::string& hostApi() const { return m_hostApi; }
    // The most channels a stream of the device can have.
    unsigned maxChannels() const { return m_maxChannels; }
    double defaultSampleRate() const { return m_defaultSampleRate; } // Hz
    // The device an empty name stands for.
    bool isDefault() const { return m_isDefault; }
    // Whether the device is a virtual one (no sound card).
    bool isVirtual() const { return m_isVirtual; }

private:
    std::string m_name;
    std::string m_hostApi;
    unsigned m_maxChannels;
    double m_defaultSampleRate; // Hz
    bool m_isDefault;
    bool m_isVirtual;
};

// What a device stream is opened with. PCM is 16-bit signed native-endian,
// interleaved by channel, in both directions.
class SonraStreamConfiguration {
public:
    SonraStreamConfiguration();
    virtual ~SonraStreamConfiguration();

    unsigned sampleRate;          // Hz
    std::string captureDevice;    // empty: the default capture device
    std::string playbackDevice;   // empty: the default playback device
    unsigned frameDuration;       // ms, the length of one audio block
    unsigned playbackChannels;    // 0: no playback
    unsigned captureChannels;     // 0: no capture
    boost::shared_ptr<boost::asio::io_service> ioService; // the graph's service, for devices that post work
};

// A sound device that can run one stream at a time.
class SonraDevice : public boost::enable_shared_from_this<SonraDevice>, private boost::noncopyable {
public:
    // Called on the device's own thread once per audio block: `in` holds
    // `inLength` captured bytes (null when the stream does not capture),
    // `out` takes `outLength` bytes to play (null when it does not play).
    // `status` 0 means a normal block; with any other value the callee
    // leaves the block alone and the device plays silence. Returning false
    // ends the stream.
    typedef boost::function<bool (const char* in, int inLength, char* out, int outLength, int status)> Callback;

    SonraDevice();
    virtual ~SonraDevice();

    // The devices of `type` this device can open.
    virtual std::vector<boost::shared_ptr<SonraDeviceInfo> > devices(SonraDeviceInfo::DeviceType type) = 0;
    // Opens and starts a stream. Returns 0 when it runs; otherwise a
    // negative code, and `*message` (when not null) says why.
    virtual int start(const SonraStreamConfiguration& configuration, Callback callback, std::string* message) = 0;
    // Stops the stream; once it returns, the callback is not called again.
    // A device lets go of the callback when its stream ends: the callback
    // may share the caller's state, and that state may hold the device.
    virtual void stop() = 0;
    // Once per graph frame, on the graph's thread.
    virtual void workCycle();
    // Whether the device cleans captured voice itself; false here.
    virtual bool hasVoicePreprocessor();
    // The graph restarted its stream.
    virtual void reset();

    bool aecEnabled; // echo cancellation wanted, read when a stream starts
};

// Supplies playback devices of another kind (a telephony card, a headset
// with its own stack). An empty result means "none here".
class SonraDeviceBuilder {
public:
    virtual ~SonraDeviceBuilder();
    // A device at `sampleRate` Hz, with capture or for playback only.
    virtual boost::shared_ptr<SonraDevice> buildDevice(bool capture, unsigned sampleRate) = 0;
};

struct SonraUniversalDevice_p;

// The sound card's devices through PortAudio, plus the virtual device:
//  - "virtual" captures silence and drops what it plays;
//  - "virtual:PATH" as a capture device captures the sound file PATH
//    (looping; its sample rate must be the stream's), as a playback device
//    writes what it plays to the WAV file PATH, closed when the stream stops.
// The virtual device keeps the stream's real-time pace on its own thread.
// A stream may mix a virtual side with a sound card side.
//
// Echo control: with `aecEnabled` set when a stream starts that captures
// and plays on the same side (the sound card in one full-duplex stream, or
// the virtual device) at 8 to 48 kHz, the echo of what the device played
// is cancelled from what it captures before the callback sees it. On a virtual stream
// the device can also simulate a room (setEchoPath()): what it plays comes
// back into what it captures, so that echo control runs without hardware.
// Without `aecEnabled` and without a room, captured bytes pass untouched.
class SonraUniversalDevice : public SonraDevice {
public:
    static const char* const VIRTUAL_DEVICE;        // "virtual"
    static const char* const VIRTUAL_DEVICE_PREFIX; // "virtual:"

    // `sampleRate`: Hz of the streams it opens.
    explicit SonraUniversalDevice(unsigned sampleRate);
    ~SonraUniversalDevice() override;

    // The virtual device first, then the sound card's devices of that kind.
    std::vector<boost::shared_ptr<SonraDeviceInfo> > devices(SonraDeviceInfo::DeviceType type) override;
    // Failures carry PortAudio's codes and words (paInvalidDevice for an
    // unknown name, paDeviceUnavailable for a busy device, ...). A running
    // stream is stopped first.
    int start(const SonraStreamConfiguration& configuration, Callback callback, std::string* message) override;
    void stop() override;

    // Hz, given at construction: the rate the virtual device reports.
    // Streams run at their configuration's rate.
    unsigned sampleRate() const;
    // A stream was started and not yet stopped.
    bool isRunning() const;

    // True while `aecEnabled` is set: the device cancels echo on the
    // streams it starts that capture and play on the same side.
    bool hasVoicePreprocessor() override;
    // The canceller of the next streams. Unless set, each stream gets
    // SonraEchoCanceller::defaultEngine() of its rate. An engine that does
    // not run at a stream's rate gives way to the other (echoMeterEngine()
    // tells).
    void setEchoEngine(SonraEchoCanceller::Engine engine);
    // The engine set, or the default one at the device's sample rate.
    SonraEchoCanceller::Engine echoEngine() const;
    // Puts the virtual device in a simulated room: a stream that captures
    // and plays on the virtual device hears what it plays through `path`,
    // on top of what it captures. On a running stream the new path takes
    // effect at the next block (a delay jump, a gain change mid-call); a
    // stream started without a room gets one at its next start.
    void setEchoPath(const SonraEchoPath& path);
    // Takes the virtual device out of the room, from the next start on.
    void removeEchoPath();
    // Whether the virtual device is in a simulated room.
    bool hasEchoPath() const;
    // What the room and the canceller did in the running stream, or the
    // last one (empty when neither ran): per block, the energy played,
    // captured and left after cancelling.
    SonraEchoMeter echoMeter() const;
    // The engine that cancels in the running or last stream; echoEngine()
    // when none did.
    SonraEchoCanceller::Engine echoMeterEngine() const;

private:
    boost::scoped_ptr<SonraUniversalDevice_p> d;
};

} // namespace ombrel

#endif
