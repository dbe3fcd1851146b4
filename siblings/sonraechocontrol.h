// Echo control of one full-duplex stream, block by block, as the universal
// device runs it on its thread: the simulated room (virtual device only),
// the canceller, and the meter that records what both did.
#ifndef OMBREL_SONRAECHOCONTROL_H
#define OMBREL_SONRAECHOCONTROL_H

#include "sonraechocanceller.h"
#include "sonraechoroom.h"

#include <boost/function.hpp>
#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>

#include <mutex>
#include <vector>

namespace ombrel {

// The echo control of one device stream: the simulated room (on the
// virtual device) and the canceller around the container's callback, block
// by block, with a meter of what both did.
class SonraEchoControl : private boost::noncopyable {
public:
    // The device callback's signature (SonraDevice::Callback).
    typedef boost::function<bool (const char* in, int inLength, char* out, int outLength, int status)> Callback;

    // `blockFrames`: samples per channel of one block. `room`: the simulated
    // acoustic path, or null on a sound card; `cancel`: whether the
    // canceller runs (off, the room's echo reaches the callback as it is).
    SonraEchoControl(unsigned sampleRate, unsigned blockFrames, unsigned blockMs, unsigned captureChannels,
                     unsigned playbackChannels, bool cancel, SonraEchoCanceller::Engine engine,
                     const SonraEchoPath* room);

    // One block of the stream, on the stream's thread: the room adds the
    // echo of what was played before to `in`, the canceller removes it,
    // `callback` sees the result and fills `out`, which becomes the room's
    // sound and the canceller's reference. A block of another size than
    // the stream's, or with a non-zero status, goes to `callback` untouched.
    bool processBlock(const char* in, int inLength, char* out, int outLength, int status, const Callback& callback);

    // Changes the simulated room's path while the stream runs (any thread);
    // false without a room.
    bool setEchoPath(const SonraEchoPath& path);
    // What the room and the canceller did so far (any thread).
    SonraEchoMeter meter() const;
    // Whether a canceller runs (asked for, and at a rate one supports).
    bool cancels() const { return bool(m_canceller); }
    // The engine that runs (the one asked for may not run at this rate).
    SonraEchoCanceller::Engine engine() const;

private:
    const unsigned m_blockFrames;     // samples per channel
    const unsigned m_playbackChannels;
    const SonraEchoCanceller::Engine m_askedEngine;
    boost::scoped_ptr<SonraEchoRoom> m_room;
    boost::scoped_ptr<SonraEchoCanceller> m_canceller;
    std::vector<short> m_captured; // the block as the microphone took it
    std::vector<short> m_cleaned;  // the block the callback sees
    mutable std::mutex m_meterMutex; // guards m_meter
    SonraEchoMeter m_meter;
};

// A call in a simulated room, driven block by block without a clock, as
// the virtual device would run it: the far end's voice is played, the near
// end's voice is captured on every channel with the room's echo, and the
// echo control cleans it. For measuring engines and rooms.
struct SonraEchoTrial {
    SonraEchoTrial();

    unsigned sampleRate;       // Hz; default 16000
    unsigned blockMs;          // ms; default 20
    unsigned captureChannels;  // default 1
    unsigned playbackChannels; // default 1
    bool cancel;               // default true
    SonraEchoCanceller::Engine engine; // default SonraEchoCanceller::DEFAULT_ENGINE (at 16 kHz)
    bool room;                 // default true: false, nothing comes back
    SonraEchoPath path;        // the room's path from the start
    unsigned changeAtMs;       // ms; 0: the path never changes
    SonraEchoPath changedPath; // from changeAtMs on
    std::vector<short> farEnd;  // mono; silence after its end
    std::vector<short> nearEnd; // mono; silence after its end
    unsigned durationMs;        // ms; default 0: the longer voice's length

    // What a trial measured.
    struct Result {
        SonraEchoMeter meter;       // block by block, the whole trial
        std::vector<short> cleaned; // the first capture channel, as the callback saw it
        SonraEchoCanceller::Engine engine; // the one that ran
    };
    // Runs the trial block by block, without a clock.
    Result run() const;
};

} // namespace ombrel

#endif
