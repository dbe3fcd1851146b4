#include "sonrafilereadernode.h"

#include "shared.h"
#include "sonrasndfile_p.h"
#include "sonraspeex_p.h"

#include <boost/make_shared.hpp>

#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace ombrel {

namespace {

// Resampler calls per graph frame before the rest of a frame is left silent:
// the first block, then top-ups for a rate ratio that is not whole.
const int MAX_RESAMPLE_PASSES = 4;

// Quality (0 to 10) of the file-to-graph rate conversion.
const int FILE_RESAMPLE_QUALITY = 5;

// Highest file rate played, Hz. Each graph frame reads and converts the
// file frames of one frame period, so a corrupt header claiming billions of
// frames a second would stall the graph's thread on silence for minutes.
const uint32_t MAX_FILE_RATE = 384000;

// openFile(): the file cannot be played and the node must stop with -2.
const int FAILED_AND_STOPPED = 1;

} // namespace

struct SonraFileReaderNode_p {
    boost::shared_ptr<SonraVSndFileVfs> m_vfsPtr;
    sndfile::FilePtr m_sndFile;           // none when stopped
    speex::ResamplerPtr m_resampler;      // only while the file's rate differs from the graph's
    boost::function<void (int)> m_callback;
    uint32_t m_position = 0;              // file frames consumed since start() or the last seek()
    std::string m_fileName;
    bool m_started = false;
    bool m_paused = false;
    SF_INFO m_sfInfo = SF_INFO();
    uint32_t m_pipeFrameSamples = 0;      // samples per channel in one graph frame
    uint32_t m_fileFrameSamples = 0;      // file frames read per graph frame
    std::vector<char> m_fileBuffer;       // file frames before resampling; empty without a resampler
    // File frames at the start of m_fileBuffer that the resampler has not
    // consumed yet: with a rate ratio that is not whole, blocks and graph
    // frames do not line up, and these go into the next frame.
    uint32_t m_carriedFrames = 0;

    std::size_t bytesPerFrame() const { return static_cast<std::size_t>(m_sfInfo.channels) * 2; }
};

SonraFileReaderNode::SonraFileReaderNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                         unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraFileReaderNode_p)
{
    d->m_pipeFrameSamples = frameSize() / 2;
}

SonraFileReaderNode::~SonraFileReaderNode()
{
    stop(CODE_FINISHED);
}

void SonraFileReaderNode::reset(unsigned /*offset*/) {}

void SonraFileReaderNode::setVSndFile(boost::shared_ptr<SonraVSndFileVfs> vfs)
{
    d->m_vfsPtr = vfs;
}

int SonraFileReaderNode::start(const std::string& fileName, unsigned& channels, unsigned& duration,
                               boost::function<void (int)> finishedCallback)
{
    SONRA_ASSERT(d->m_vfsPtr);
    stop(CODE_FINISHED);
    d->m_fileName = fileName;
    if (!d->m_vfsPtr->open(fileName, VFS_READ))
        return START_OPEN_REFUSED;
    d->m_callback = finishedCallback;
    int result = START_FAILED;
    try {
        result = openFile(channels, duration);
    } catch (...) {
        result = FAILED_AND_STOPPED;
    }
    if (result != FAILED_AND_STOPPED)
        return result;
    stop(CODE_FAILED);
    return START_FAILED;
}

// Opens the file through the SonraVSndFileVfs and prepares the conversion.
// Gives 0, START_FAILED when libsndfile refuses the file (the node is left
// as it is), or FAILED_AND_STOPPED when the file cannot be played.
int SonraFileReaderNode::openFile(unsigned& channels, unsigned& duration)
{
    d->m_sfInfo = SF_INFO();
    d->m_sndFile.reset(sf_open_virtual(d->m_vfsPtr->virtualIo().get(), SFM_READ, &d->m_sfInfo, d->m_vfsPtr.get()));
    if (!d->m_sndFile) {
        warning("audio2", false) << "Sound file reader failed to open sndfile: " << sf_strerror(nullptr);
        return START_FAILED;
    }
    // The 32-bit position must be able to pass the end.
    if (d->m_sfInfo.frames < 1 || d->m_sfInfo.frames > std::numeric_limits<int32_t>::max())
        return FAILED_AND_STOPPED;
    channels = static_cast<unsigned>(d->m_sfInfo.channels);
    duration = d->m_sfInfo.samplerate > 0 ? static_cast<unsigned>(d->m_sfInfo.frames / d->m_sfInfo.samplerate) : 0;
    setOutputChannels(channels);
    if (channels == 0 || d->m_sfInfo.samplerate <= 0)
        return FAILED_AND_STOPPED;
    const uint32_t fileRate = static_cast<uint32_t>(d->m_sfInfo.samplerate);
    d->m_fileFrameSamples = static_cast<uint32_t>(uint64_t(d->m_pipeFrameSamples) * fileRate / sampleRate());
    // A rate too low for one file frame a graph frame is refused like an empty file.
    if (d->m_fileFrameSamples == 0 || fileRate > MAX_FILE_RATE)
        return FAILED_AND_STOPPED;
    if (fileRate != sampleRate()) {
        int error = 0;
        d->m_resampler.reset(speex_resampler_init(channels, fileRate, sampleRate(), FILE_RESAMPLE_QUALITY, &error));
        if (error != 0 || !d->m_resampler)
            return FAILED_AND_STOPPED;
        d->m_fileBuffer.assign(d->m_fileFrameSamples * d->bytesPerFrame(), 0);
    }
    d->m_carriedFrames = 0;
    d->m_paused = false;
    d->m_started = true;
    return START_OK;
}

void SonraFileReaderNode::stop(int code)
{
    d->m_started = false;
    d->m_paused = false;
    d->m_position = 0;
    d->m_sndFile.reset();
    d->m_resampler.reset();
    d->m_fileBuffer.clear();
    d->m_carriedFrames = 0;
    if (d->m_vfsPtr)
        d->m_vfsPtr->close();
    d->m_fileName.clear();
    if (d->m_callback) {
        // Cleared before the call, so that a callback starting a new file
        // keeps the new callback.
        const boost::function<void (int)> callback = d->m_callback;
        d->m_callback.clear();
        callback(code);
    }
}

void SonraFileReaderNode::pause()
{
    d->m_paused = true;
}

void SonraFileReaderNode::resume()
{
    d->m_paused = false;
}

void SonraFileReaderNode::seek(unsigned seconds)
{
    if (!d->m_sndFile)
        return;
    const uint32_t target = seconds * static_cast<uint32_t>(d->m_sfInfo.samplerate);
    if (sf_seek(d->m_sndFile.get(), target, SEEK_SET) >= 0) {
        d->m_position = target;
        d->m_carriedFrames = 0; // from before the jump
    }
}

std::string SonraFileReaderNode::fileName() const
{
    return d->m_fileName;
}

boost::shared_ptr<std::vector<char> > SonraFileReaderNode::doProcess()
{
    if (!d->m_started || d->m_paused)
        return boost::shared_ptr<std::vector<char> >();
    if (d->m_position >= d->m_sfInfo.frames) {
        stop(CODE_FINISHED);
        return boost::shared_ptr<std::vector<char> >();
    }
    // Sized for the file's channels, which the node set as its output
    // channels: an owner changing them later cannot make a read overrun.
    const boost::shared_ptr<std::vector<char> > out =
        boost::make_shared<std::vector<char> >(static_cast<std::size_t>(d->m_pipeFrameSamples) * d->bytesPerFrame());
    if (d->m_resampler)
        readResampled(*out);
    else
        readBlock(out->data(), d->m_fileFrameSamples);
    return out;
}

// Reads `frames` file frames to `into`; what the file does not give (its
// end, or a short read inside it) is silence. The position moves by the
// whole count either way, so that playing ends at the announced length.
void SonraFileReaderNode::readBlock(char* into, uint32_t frames)
{
    sf_count_t got = sf_readf_short(d->m_sndFile.get(), reinterpret_cast<short*>(into), frames);
    if (got < 0)
        got = 0;
    std::memset(into + got * d->bytesPerFrame(), 0, (frames - got) * d->bytesPerFrame());
    d->m_position += frames;
}

// Fills `out` with exactly one graph frame converted from the file. Reads
// one block; when the rate ratio is not whole the resampler may stop short
// of the frame (then a few more file frames are read) or leave input over
// (carried into the next frame), so that nothing is lost or repeated.
void SonraFileReaderNode::readResampled(std::vector<char>& out)
{
    const std::size_t bytesPerFrame = d->bytesPerFrame();
    const uint64_t fileRate = static_cast<uint64_t>(d->m_sfInfo.samplerate);
    uint32_t produced = 0; // samples per channel of the graph frame done
    uint32_t toRead = d->m_fileFrameSamples;
    for (int pass = 0; pass < MAX_RESAMPLE_PASSES && produced < d->m_pipeFrameSamples; ++pass) {
        const std::size_t needed = (static_cast<std::size_t>(d->m_carriedFrames) + toRead) * bytesPerFrame;
        if (d->m_fileBuffer.size() < needed)
            d->m_fileBuffer.resize(needed);
        readBlock(d->m_fileBuffer.data() + d->m_carriedFrames * bytesPerFrame, toRead);
        spx_uint32_t inSamples = d->m_carriedFrames + toRead;
        spx_uint32_t outSamples = d->m_pipeFrameSamples - produced;
        speex_resampler_process_interleaved_int(
            d->m_resampler.get(), reinterpret_cast<const spx_int16_t*>(d->m_fileBuffer.data()), &inSamples,
            reinterpret_cast<spx_int16_t*>(out.data() + produced * bytesPerFrame), &outSamples);
        produced += outSamples;
        d->m_carriedFrames = d->m_carriedFrames + toRead - inSamples;
        std::memmove(d->m_fileBuffer.data(), d->m_fileBuffer.data() + inSamples * bytesPerFrame,
                     d->m_carriedFrames * bytesPerFrame);
        // What the rest of the frame needs, rounded up.
        toRead = static_cast<uint32_t>(((d->m_pipeFrameSamples - produced) * fileRate + sampleRate() - 1) / sampleRate());
        if (toRead == 0)
            toRead = 1;
    }
}

} // namespace ombrel
