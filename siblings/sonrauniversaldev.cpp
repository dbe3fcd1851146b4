#include "sonrauniversaldev.h"

#include "sonraechocontrol.h"

#include <boost/make_shared.hpp>

#include <portaudio.h>
#include <sndfile.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

namespace ombrel {

// ------------------------------------------------------- small public types

SonraDeviceInfo::SonraDeviceInfo(const std::string& name, const std::string& hostApi, unsigned maxChannels,
                                 double defaultSampleRate, bool isDefault, bool isVirtual)
    : m_name(name),
      m_hostApi(hostApi),
      m_maxChannels(maxChannels),
      m_defaultSampleRate(defaultSampleRate),
      m_isDefault(isDefault),
      m_isVirtual(isVirtual)
{
}

SonraDeviceInfo::~SonraDeviceInfo() = default;

SonraStreamConfiguration::SonraStreamConfiguration()
    : sampleRate(16000), frameDuration(20), playbackChannels(1), captureChannels(0)
{
}

SonraStreamConfiguration::~SonraStreamConfiguration() = default;

SonraDevice::SonraDevice() : aecEnabled(false) {}
SonraDevice::~SonraDevice() = default;
void SonraDevice::workCycle() {}
bool SonraDevice::hasVoicePreprocessor() { return false; }
void SonraDevice::reset() {}

SonraDeviceBuilder::~SonraDeviceBuilder() = default;

namespace {

const unsigned SAMPLE_BYTES = 2;            // bytes of one 16-bit sample
const unsigned VIRTUAL_MAX_CHANNELS = 8;    // what the virtual device offers
const unsigned long long MAX_BLOCK_FRAMES = 1u << 20; // samples per channel in one block
// A virtual stream that falls further behind than this (a suspended
// process) starts its pace afresh instead of bursting, as a sound card
// would after an overrun.
const std::chrono::milliseconds VIRTUAL_MAX_LAG(200);

// ------------------------------------------------------------ PortAudio use

// While alive, whatever is written to the process's stderr is dropped:
// PortAudio's probe of ALSA and JACK prints pages of noise on machines
// without a sound card or a sound server. Errors still reach the caller
// through PortAudio's codes.
class StderrSilencer {
public:
    StderrSilencer() : m_saved(-1)
    {
        std::fflush(stderr);
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null < 0)
            return;
        m_saved = ::dup(STDERR_FILENO);
        if (m_saved >= 0)
            ::dup2(null, STDERR_FILENO);
        ::close(null);
    }
    ~StderrSilencer()
    {
        if (m_saved < 0)
            return;
        std::fflush(stderr);
        ::dup2(m_saved, STDERR_FILENO);
        ::close(m_saved);
    }
    StderrSilencer(const StderrSilencer&) = delete;
    StderrSilencer& operator=(const StderrSilencer&) = delete;

private:
    int m_saved;
};

// PortAudio is initialised once per process, on first need, and terminated
// at exit. Initialising probes every host API, which is slow and noisy.
class PortAudioLibrary {
public:
    static PaError ensureInitialised()
    {
        static PortAudioLibrary library;
        std::lock_guard<std::mutex> lock(library.m_mutex);
        if (!library.m_tried) {
            library.m_tried = true;
            StderrSilencer quiet;
            library.m_result = Pa_Initialize();
        }
        return library.m_result;
    }

private:
    PortAudioLibrary() : m_tried(false), m_result(paNoError) {}
    ~PortAudioLibrary()
    {
        if (m_tried && m_result == paNoError)
            Pa_Terminate();
    }

    std::mutex m_mutex;
    bool m_tried;
    PaError m_result;
};

// The host API's own words for a failure PortAudio did not anticipate.
std::string hostErrorText(PaError error)
{
    if (error != paUnanticipatedHostError)
        return std::string();
    const PaHostErrorInfo* host = Pa_GetLastHostErrorInfo();
    return host && host->errorText ? std::string(host->errorText) : std::string();
}

// Records a failure in the caller's message text and passes the code on.
int fail(PaError code, const std::string& detail, std::string* message)
{
    if (message) {
        *message = Pa_GetErrorText(code);
        if (!detail.empty())
            *message += ": " + detail;
    }
    return code;
}

bool isCaptureType(SonraDeviceInfo::DeviceType type)
{
    return (static_cast<unsigned>(type) & SonraDeviceInfo::CAPTURE) != 0;
}

unsigned maxChannels(const PaDeviceInfo& info, bool capture)
{
    return static_cast<unsigned>(std::max(0, capture ? info.maxInputChannels : info.maxOutputChannels));
}

std::string hostApiName(const PaDeviceInfo& info)
{
    const PaHostApiInfo* api = Pa_GetHostApiInfo(info.hostApi);
    return api && api->name ? api->name : "";
}

// The device of that direction named `name`, or the default one for an
// empty name. Fills `detail` when there is none.
PaDeviceIndex findPortAudioDevice(const std::string& name, bool capture, std::string& detail)
{
    const char* direction = capture ? "capture" : "playback";
    if (name.empty()) {
        const PaDeviceIndex index = capture ? Pa_GetDefaultInputDevice() : Pa_GetDefaultOutputDevice();
        if (index == paNoDevice)
            detail = std::string("there is no default ") + direction + " device";
        return index;
    }
    const PaDeviceIndex count = Pa_GetDeviceCount();
    for (PaDeviceIndex index = 0; index < count; ++index) {
        const PaDeviceInfo* info = Pa_GetDeviceInfo(index);
        if (info && info->name && name == info->name && maxChannels(*info, capture) > 0)
            return index;
    }
    detail = std::string("there is no ") + direction + " device named \"" + name + "\"";
    return paNoDevice;
}

// ----------------------------------------------------------------- streams

// Samples per channel in one block of the stream.
unsigned long long blockFrames(const SonraStreamConfiguration& configuration)
{
    return static_cast<unsigned long long>(configuration.sampleRate) * configuration.frameDuration / 1000;
}

// One running stream of the device: a PortAudio stream or a virtual one.
class Stream {
public:
    virtual ~Stream() = default;
    // Returns 0 or a PortAudio code, with the reason in `message`.
    virtual int start(std::string* message) = 0;
    // Once it returns, the callback is not called again.
    virtual void stop() = 0;
};

// Direction(s) of a stream: channel counts, 0 for a side it does not have.
struct Sides {
    unsigned captureChannels;
    unsigned playbackChannels;
};

class PortAudioStream : public Stream {
public:
    PortAudioStream(const SonraStreamConfiguration& configuration, const Sides& sides,
                    const SonraDevice::Callback& callback)
        : m_configuration(configuration), m_sides(sides), m_callback(callback), m_stream(nullptr)
    {
    }

    ~PortAudioStream() override { stop(); }

    int start(std::string* message) override
    {
        const PaError initialised = PortAudioLibrary::ensureInitialised();
        if (initialised != paNoError)
            return fail(initialised, "", message);

        PaStreamParameters input, output;
        std::string detail;
        PaError error = paNoError;
        if (m_sides.captureChannels > 0)
            error = describe(m_configuration.captureDevice, true, m_sides.captureChannels, input, detail);
        if (error == paNoError && m_sides.playbackChannels > 0)
            error = describe(m_configuration.playbackDevice, false, m_sides.playbackChannels, output, detail);
        if (error != paNoError)
            return fail(error, detail, message);

        error = Pa_OpenStream(&m_stream, m_sides.captureChannels > 0 ? &input : nullptr,
                              m_sides.playbackChannels > 0 ? &output : nullptr, m_configuration.sampleRate,
                              static_cast<unsigned long>(blockFrames(m_configuration)), paNoFlag,
                              &PortAudioStream::onBlock, this);
        if (error != paNoError) {
            m_stream = nullptr;
            return fail(error, hostErrorText(error), message);
        }
        error = Pa_StartStream(m_stream);
        if (error != paNoError) {
            Pa_CloseStream(m_stream);
            m_stream = nullptr;
            return fail(error, hostErrorText(error), message);
        }
        return paNoError;
    }

    void stop() override
    {
        if (!m_stream)
            return;
        Pa_StopStream(m_stream);
        Pa_CloseStream(m_stream);
        m_stream = nullptr;
    }

private:
    // A missing default device is what a machine without a sound card
    // answers (PortAudio says "Device unavailable" then); an unknown name is
    // the caller's mistake ("Invalid device").
    PaError describe(const std::string& name, bool capture, unsigned channels, PaStreamParameters& parameters,
                     std::string& detail)
    {
        const PaDeviceIndex index = findPortAudioDevice(name, capture, detail);
        if (index == paNoDevice)
            return name.empty() ? paDeviceUnavailable : paInvalidDevice;
        const PaDeviceInfo* info = Pa_GetDeviceInfo(index);
        std::memset(&parameters, 0, sizeof parameters);
        parameters.device = index;
        parameters.channelCount = static_cast<int>(channels);
        parameters.sampleFormat = paInt16;
        parameters.suggestedLatency = capture ? info->defaultLowInputLatency : info->defaultLowOutputLatency;
        return paNoError;
    }

    static int onBlock(const void* input, void* output, unsigned long frames, const PaStreamCallbackTimeInfo*,
                       PaStreamCallbackFlags, void* user)
    {
        PortAudioStream* self = static_cast<PortAudioStream*>(user);
        const int inLength = static_cast<int>(frames * self->m_sides.captureChannels * SAMPLE_BYTES);
        const int outLength = static_cast<int>(frames * self->m_sides.playbackChannels * SAMPLE_BYTES);
        // Overflow and underflow flags only report lost time; the block
        // itself is sound, so it goes through as a normal one.
        try {
            const bool goOn = self->m_callback(static_cast<const char*>(input), input ? inLength : 0,
                                               static_cast<char*>(output), output ? outLength : 0, 0);
            return goOn ? paContinue : paComplete;
        } catch (...) {
            // Nothing may unwind into PortAudio's thread: the stream ends.
            if (output)
                std::memset(output, 0, static_cast<std::size_t>(outLength));
            return paAbort;
        }
    }

    const SonraStreamConfiguration m_configuration;
    const Sides m_sides;
    const SonraDevice::Callback m_callback;
    PaStream* m_stream;
};

bool isVirtualName(const std::string& name)
{
    return name == SonraUniversalDevice::VIRTUAL_DEVICE ||
           name.rfind(SonraUniversalDevice::VIRTUAL_DEVICE_PREFIX, 0) == 0;
}

std::string virtualPath(const std::string& name)
{
    const std::string prefix = SonraUniversalDevice::VIRTUAL_DEVICE_PREFIX;
    return name.size() > prefix.size() ? name.substr(prefix.size()) : std::string();
}

// A stream without hardware: a thread that calls back once per block at
// the stream's real-time pace, capturing silence or a sound file (looping)
// and dropping what it plays or writing it to a WAV file.
class VirtualStream : public Stream {
public:
    VirtualStream(const SonraStreamConfiguration& configuration, const Sides& sides,
                  const SonraDevice::Callback& callback)
        : m_configuration(configuration),
          m_sides(sides),
          m_callback(callback),
          m_blockFrames(static_cast<unsigned>(blockFrames(configuration))),
          m_captureFile(nullptr),
          m_captureFileChannels(0),
          m_playbackFile(nullptr),
          m_stopping(false)
    {
    }

    ~VirtualStream() override { stop(); }

    int start(std::string* message) override
    {
        if (m_sides.captureChannels > VIRTUAL_MAX_CHANNELS || m_sides.playbackChannels > VIRTUAL_MAX_CHANNELS)
            return fail(paInvalidChannelCount,
                        "the virtual device has at most " + std::to_string(VIRTUAL_MAX_CHANNELS) + " channels",
                        message);
        if (m_sides.captureChannels > 0) {
            const int result = openCaptureFile(virtualPath(m_configuration.captureDevice), message);
            if (result != paNoError)
                return result;
        }
        if (m_sides.playbackChannels > 0) {
            const int result = openPlaybackFile(virtualPath(m_configuration.playbackDevice), message);
            if (result != paNoError) {
                closeFiles();
                return result;
            }
        }
        m_stopping = false;
        m_thread = std::thread(&VirtualStream::run, this);
        return paNoError;
    }

    void stop() override
    {
        if (m_thread.joinable()) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_stopping = true;
            }
            m_wake.notify_all();
            m_thread.join();
        }
        closeFiles();
    }

private:
    int openCaptureFile(const std::string& path, std::string* message)
    {
        if (path.empty())
            return paNoError;
        SF_INFO info;
        std::memset(&info, 0, sizeof info);
        m_captureFile = sf_open(path.c_str(), SFM_READ, &info);
        if (!m_captureFile)
            return fail(paInvalidDevice, "cannot read the sound file \"" + path + "\": " + sf_strerror(nullptr),
                        message);
        if (info.samplerate != static_cast<int>(m_configuration.sampleRate)) {
            closeFiles();
            return fail(paInvalidSampleRate,
                        "the sound file \"" + path + "\" has " + std::to_string(info.samplerate) +
                            " Hz, the stream " + std::to_string(m_configuration.sampleRate) + " Hz",
                        message);
        }
        m_captureFileChannels = static_cast<unsigned>(info.channels);
        return paNoError;
    }

    int openPlaybackFile(const std::string& path, std::string* message)
    {
        if (path.empty())
            return paNoError;
        SF_INFO info;
        std::memset(&info, 0, sizeof info);
        info.samplerate = static_cast<int>(m_configuration.sampleRate);
        info.channels = static_cast<int>(m_sides.playbackChannels);
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        m_playbackFile = sf_open(path.c_str(), SFM_WRITE, &info);
        if (!m_playbackFile)
            return fail(paInvalidDevice, "cannot write the sound file \"" + path + "\": " + sf_strerror(nullptr),
                        message);
        return paNoError;
    }

    void closeFiles()
    {
        if (m_captureFile)
            sf_close(m_captureFile);
        if (m_playbackFile)
            sf_close(m_playbackFile);
        m_captureFile = nullptr;
        m_playbackFile = nullptr;
    }

    // Fills one block of the capture side from the file, looping at its
    // end, and maps the file's channels onto the stream's: a mono stream
    // gets the average, otherwise channel c plays file channel c modulo
    // the file's count.
    void readCapture(std::vector<short>& block)
    {
        const unsigned channels = m_sides.captureChannels;
        std::fill(block.begin(), block.end(), 0);
        if (!m_captureFile || m_captureFileChannels == 0)
            return;
        m_fileFrames.resize(static_cast<std::size_t>(m_blockFrames) * m_captureFileChannels);
        sf_count_t filled = 0;
        bool rewound = false;
        while (filled < static_cast<sf_count_t>(m_blockFrames)) {
            const sf_count_t got = sf_readf_short(m_captureFile, m_fileFrames.data() + filled * m_captureFileChannels,
                                                  m_blockFrames - filled);
            if (got > 0) {
                filled += got;
                rewound = false;
                continue;
            }
            if (rewound || sf_seek(m_captureFile, 0, SEEK_SET) < 0)
                break; // an empty or unreadable file: the rest stays silent
            rewound = true;
        }
        for (sf_count_t frame = 0; frame < filled; ++frame) {
            const short* in = m_fileFrames.data() + frame * m_captureFileChannels;
            short* out = block.data() + frame * channels;
            if (channels == 1 && m_captureFileChannels > 1) {
                int sum = 0;
                for (unsigned c = 0; c < m_captureFileChannels; ++c)
                    sum += in[c];
                out[0] = static_cast<short>(sum / static_cast<int>(m_captureFileChannels));
            } else {
                for (unsigned c = 0; c < channels; ++c)
                    out[c] = in[c % m_captureFileChannels];
            }
        }
    }

    // Deadlines advance by whole blocks from the start, so the pace never
    // drifts; the first block is due one block after the start, when a
    // real device would have captured it.
    void run()
    {
        typedef std::chrono::steady_clock Clock;
        const std::chrono::nanoseconds period(
            static_cast<long long>(m_blockFrames) * 1000000000LL / m_configuration.sampleRate);
        std::vector<short> captured(static_cast<std::size_t>(m_blockFrames) * m_sides.captureChannels);
        std::vector<short> played(static_cast<std::size_t>(m_blockFrames) * m_sides.playbackChannels);
        Clock::time_point start = Clock::now();
        unsigned long long blocks = 0;
        for (;;) {
            const Clock::time_point due = start + period * (blocks + 1);
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                if (m_wake.wait_until(lock, due, [this] { return m_stopping; }))
                    return;
            }
            if (Clock::now() - due > VIRTUAL_MAX_LAG) {
                start = Clock::now();
                blocks = 0;
                continue;
            }
            ++blocks;
            try {
                if (!deliverBlock(captured, played))
                    return;
            } catch (...) {
                return; // nothing may escape the thread: the stream ends
            }
        }
    }

    bool deliverBlock(std::vector<short>& captured, std::vector<short>& played)
    {
        if (m_sides.captureChannels > 0)
            readCapture(captured);
        std::fill(played.begin(), played.end(), 0);
        const bool goOn = m_callback(m_sides.captureChannels > 0 ? reinterpret_cast<const char*>(captured.data()) : nullptr,
                                     static_cast<int>(captured.size() * SAMPLE_BYTES),
                                     m_sides.playbackChannels > 0 ? reinterpret_cast<char*>(played.data()) : nullptr,
                                     static_cast<int>(played.size() * SAMPLE_BYTES), 0);
        if (m_playbackFile)
            sf_writef_short(m_playbackFile, played.data(), m_blockFrames);
        return goOn;
    }

    const SonraStreamConfiguration m_configuration;
    const Sides m_sides;
    const SonraDevice::Callback m_callback;
    const unsigned m_blockFrames; // samples per channel in one block
    SNDFILE* m_captureFile;
    unsigned m_captureFileChannels;
    SNDFILE* m_playbackFile;
    std::vector<short> m_fileFrames; // one block as the capture file stores it
    std::mutex m_mutex;               // guards m_stopping
    std::condition_variable m_wake;
    bool m_stopping;
    std::thread m_thread;
};

} // namespace

// ------------------------------------------------------ SonraUniversalDevice

const char* const SonraUniversalDevice::VIRTUAL_DEVICE = "virtual";
const char* const SonraUniversalDevice::VIRTUAL_DEVICE_PREFIX = "virtual:";

struct SonraUniversalDevice_p {
    unsigned m_sampleRate;                          // Hz
    boost::scoped_ptr<Stream> m_portAudioStream;    // the sound card's side(s)
    boost::scoped_ptr<Stream> m_virtualStream;      // the virtual side(s)
    SonraEchoCanceller::Engine m_echoEngine;        // for the next streams, when m_echoEngineSet
    bool m_echoEngineSet;
    boost::scoped_ptr<SonraEchoPath> m_echoPath;    // the virtual device's room, if any
    // The running or last stream's echo control; the stream's callback
    // holds a share of it.
    boost::shared_ptr<SonraEchoControl> m_echoControl;
};

namespace {

// A stream whose capture and playback run on the same side gets echo
// control when it is asked for, or when the virtual device is in a room;
// the callback then goes through it.
SonraDevice::Callback withEchoControl(const SonraStreamConfiguration& configuration, const SonraDevice::Callback& callback,
                                      bool cancel, SonraUniversalDevice_p& d)
{
    d.m_echoControl.reset();
    const bool duplex = configuration.captureChannels > 0 && configuration.playbackChannels > 0;
    const bool virtualCapture = isVirtualName(configuration.captureDevice);
    if (!duplex || virtualCapture != isVirtualName(configuration.playbackDevice))
        return callback;
    const SonraEchoPath* room = virtualCapture ? d.m_echoPath.get() : nullptr;
    // Outside the engines' rates the stream runs as it would without echo control.
    cancel = cancel && configuration.sampleRate >= SonraEchoCanceller::MIN_SAMPLE_RATE &&
             configuration.sampleRate <= SonraEchoCanceller::MAX_SAMPLE_RATE;
    if (!cancel && !room)
        return callback;
    d.m_echoControl = boost::make_shared<SonraEchoControl>(
        configuration.sampleRate, static_cast<unsigned>(blockFrames(configuration)), configuration.frameDuration,
        configuration.captureChannels, configuration.playbackChannels, cancel,
        d.m_echoEngineSet ? d.m_echoEngine : SonraEchoCanceller::defaultEngine(configuration.sampleRate), room);
    const boost::shared_ptr<SonraEchoControl> control = d.m_echoControl;
    return [control, callback](const char* in, int inLength, char* out, int outLength, int status) {
        return control->processBlock(in, inLength, out, outLength, status, callback);
    };
}

} // namespace

SonraUniversalDevice::SonraUniversalDevice(unsigned sampleRate) : d(new SonraUniversalDevice_p)
{
    d->m_sampleRate = sampleRate;
    d->m_echoEngine = SonraEchoCanceller::DEFAULT_ENGINE;
    d->m_echoEngineSet = false;
}

SonraUniversalDevice::~SonraUniversalDevice()
{
    stop();
}

unsigned SonraUniversalDevice::sampleRate() const
{
    return d->m_sampleRate;
}

bool SonraUniversalDevice::isRunning() const
{
    return d->m_portAudioStream || d->m_virtualStream;
}

std::vector<boost::shared_ptr<SonraDeviceInfo> > SonraUniversalDevice::devices(SonraDeviceInfo::DeviceType type)
{
    const bool capture = isCaptureType(type);
    std::vector<boost::shared_ptr<SonraDeviceInfo> > found;
    found.push_back(boost::shared_ptr<SonraDeviceInfo>(
        new SonraDeviceInfo(VIRTUAL_DEVICE, VIRTUAL_DEVICE, VIRTUAL_MAX_CHANNELS, d->m_sampleRate, false, true)));
    if (PortAudioLibrary::ensureInitialised() != paNoError)
        return found;
    const PaDeviceIndex defaultIndex = capture ? Pa_GetDefaultInputDevice() : Pa_GetDefaultOutputDevice();
    const PaDeviceIndex count = Pa_GetDeviceCount();
    for (PaDeviceIndex index = 0; index < count; ++index) {
        const PaDeviceInfo* info = Pa_GetDeviceInfo(index);
        if (!info || !info->name || maxChannels(*info, capture) == 0)
            continue;
        found.push_back(boost::shared_ptr<SonraDeviceInfo>(new SonraDeviceInfo(
            info->name, hostApiName(*info), maxChannels(*info, capture), info->defaultSampleRate,
            index == defaultIndex, false)));
    }
    return found;
}

int SonraUniversalDevice::start(const SonraStreamConfiguration& configuration, Callback callback,
                                std::string* message)
{
    stop();
    if (configuration.sampleRate == 0)
        return fail(paInvalidSampleRate, "the stream's sample rate is 0 Hz", message);
    if (blockFrames(configuration) == 0)
        return fail(paBufferTooSmall, "a block of " + std::to_string(configuration.frameDuration) +
                                          " ms holds no sample", message);
    if (blockFrames(configuration) > MAX_BLOCK_FRAMES)
        return fail(paBufferTooBig, "a block of " + std::to_string(configuration.frameDuration) + " ms", message);
    if (configuration.captureChannels == 0 && configuration.playbackChannels == 0)
        return fail(paInvalidChannelCount, "the stream neither captures nor plays", message);
    if (callback.empty())
        return fail(paNullCallback, "", message);
    callback = withEchoControl(configuration, callback, aecEnabled, *d);

    // A virtual side runs on its own thread, a sound card side on
    // PortAudio's; a stream may have one of each.
    Sides virtualSides = {0, 0};
    Sides cardSides = {0, 0};
    (isVirtualName(configuration.captureDevice) ? virtualSides : cardSides).captureChannels =
        configuration.captureChannels;
    (isVirtualName(configuration.playbackDevice) ? virtualSides : cardSides).playbackChannels =
        configuration.playbackChannels;

    if (cardSides.captureChannels > 0 || cardSides.playbackChannels > 0) {
        d->m_portAudioStream.reset(new PortAudioStream(configuration, cardSides, callback));
        const int result = d->m_portAudioStream->start(message);
        if (result != paNoError) {
            d->m_portAudioStream.reset();
            return result;
        }
    }
    if (virtualSides.captureChannels > 0 || virtualSides.playbackChannels > 0) {
        d->m_virtualStream.reset(new VirtualStream(configuration, virtualSides, callback));
        const int result = d->m_virtualStream->start(message);
        if (result != paNoError) {
            d->m_virtualStream.reset();
            stop();
            return result;
        }
    }
    if (message)
        message->clear();
    return paNoError;
}

void SonraUniversalDevice::stop()
{
    d->m_virtualStream.reset();
    d->m_portAudioStream.reset();
}

bool SonraUniversalDevice::hasVoicePreprocessor()
{
    return aecEnabled;
}

void SonraUniversalDevice::setEchoEngine(SonraEchoCanceller::Engine engine)
{
    d->m_echoEngine = engine;
    d->m_echoEngineSet = true;
}

SonraEchoCanceller::Engine SonraUniversalDevice::echoEngine() const
{
    return d->m_echoEngineSet ? d->m_echoEngine : SonraEchoCanceller::defaultEngine(d->m_sampleRate);
}

void SonraUniversalDevice::setEchoPath(const SonraEchoPath& path)
{
    d->m_echoPath.reset(new SonraEchoPath(path));
    if (d->m_echoControl && isRunning())
        d->m_echoControl->setEchoPath(path);
}

void SonraUniversalDevice::removeEchoPath()
{
    d->m_echoPath.reset();
}

bool SonraUniversalDevice::hasEchoPath() const
{
    return bool(d->m_echoPath);
}

SonraEchoMeter SonraUniversalDevice::echoMeter() const
{
    return d->m_echoControl ? d->m_echoControl->meter() : SonraEchoMeter();
}

SonraEchoCanceller::Engine SonraUniversalDevice::echoMeterEngine() const
{
    return d->m_echoControl ? d->m_echoControl->engine() : echoEngine();
}

} // namespace ombrel
