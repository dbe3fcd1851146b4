#include "sonrafileplaynode.h"

#include "shared.h"
#include "sonrasndfile_p.h"
#include "sonraspeex_p.h"

#include <boost/filesystem/operations.hpp>
#include <boost/iostreams/device/file_descriptor.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace ombrel {

int32_t SonraFilePlayNode::DEFAULT_MAX_FILESIZE = 1048576;

namespace {

// Quality (0 to 10) of the one-pass rate conversion.
const int FILE_RESAMPLE_QUALITY = 5;

// The store and the position are 32-bit byte counts.
const uint64_t MAX_STORE_BYTES = std::numeric_limits<uint32_t>::max();

// Bytes decoded per read while loading: the store grows by at most this much
// beyond what the file has yielded so far.
const uint64_t READ_CHUNK_BYTES = 65536;

} // namespace

struct SonraFilePlayNode_p {
    int32_t m_maxFileSize = 0;     // bytes, compared as unsigned
    bool m_loop = false;
    boost::shared_ptr<SonraVSndFileVfs> m_vfsPtr; // none: plain files
    std::vector<char> m_samples;   // the whole file, 16-bit interleaved at the graph's rate
    boost::function<void ()> m_callback;
    uint32_t m_position = 0;       // byte offset of the next frame in m_samples
    std::string m_fileName;
    bool m_stopped = false;
};

SonraFilePlayNode::SonraFilePlayNode(boost::shared_ptr<boost::asio::io_service> ioService, int maxFileSize,
                                     unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraFilePlayNode_p)
{
    d->m_maxFileSize = maxFileSize;
}

SonraFilePlayNode::~SonraFilePlayNode()
{
    stop();
}

void SonraFilePlayNode::setVSndFile(SonraVSndFile* file)
{
    d->m_vfsPtr = file ? file->vfs() : boost::shared_ptr<SonraVSndFileVfs>();
}

int SonraFilePlayNode::start(const std::string& fileName, unsigned& channels,
                             boost::function<void ()> finishedCallback, bool loop)
{
    d->m_position = 0;
    d->m_fileName = fileName;
    // A failed start leaves nothing to play, rather than an earlier file or
    // a half-converted one.
    d->m_samples.clear();
    const boost::shared_ptr<SonraVSndFileVfs> vfs = d->m_vfsPtr;
    int result = vfs ? (vfs->open(fileName, VFS_READ) ? START_OK : START_UNREADABLE) : checkPlainFile(fileName);
    if (result != START_OK)
        return result;
    try {
        result = load(fileName, channels);
    } catch (...) {
        result = START_NOT_AUDIO;
    }
    if (vfs)
        vfs->close(); // the file is entirely in memory now
    if (result != START_OK) {
        d->m_samples.clear();
        return result;
    }
    d->m_loop = loop;
    d->m_callback = finishedCallback;
    d->m_stopped = false;
    return START_OK;
}

// Whether `fileName` is a readable plain file within the size limit.
int SonraFilePlayNode::checkPlainFile(const std::string& fileName) const
{
    boost::system::error_code error;
    const boost::filesystem::file_status status = boost::filesystem::status(fileName, error);
    if (error || !boost::filesystem::exists(status))
        return START_MISSING;
    const boost::uintmax_t size = boost::filesystem::file_size(fileName, error);
    if (error)
        return START_UNREADABLE;
    if (size > static_cast<uint32_t>(d->m_maxFileSize))
        return START_TOO_LARGE;
    try {
        boost::iostreams::file_descriptor_source file(fileName, std::ios_base::in);
        if (!file.is_open())
            return START_UNREADABLE;
    } catch (...) {
        return START_UNREADABLE;
    }
    return START_OK;
}

// Decodes the whole file into m_samples and converts it to the graph's rate.
int SonraFilePlayNode::load(const std::string& fileName, unsigned& channels)
{
    SF_INFO info = SF_INFO();
    sndfile::FilePtr file(d->m_vfsPtr
                              ? sf_open_virtual(d->m_vfsPtr->virtualIo().get(), SFM_READ, &info, d->m_vfsPtr.get())
                              : sf_open(fileName.c_str(), SFM_READ, &info));
    if (!file) {
        warning("audio2", false) << "SonraFilePlayNode::start: failed to open sndfile: " << sf_strerror(nullptr);
        return START_NOT_AUDIO;
    }
    if (info.frames < 1 || info.channels < 1 || info.samplerate < 1)
        return START_NOT_AUDIO;
    const sf_count_t framesRead = readWhole(file.get(), static_cast<unsigned>(info.channels), info.frames);
    if (framesRead < 0)
        return START_NOT_AUDIO; // longer than the store can hold
    if (framesRead != info.frames)
        warning("audio2", false) << "SonraFilePlayNode::start: File is corrupted, could not read some data from it: "
                                 << fileName;
    if (framesRead == 0)
        return START_NOT_AUDIO;
    file.reset();
    channels = static_cast<unsigned>(info.channels);
    setOutputChannels(channels);
    if (static_cast<unsigned>(info.samplerate) != sampleRate() &&
        !convertRate(channels, static_cast<unsigned>(info.samplerate)))
        return START_NOT_AUDIO;
    return START_OK;
}

// Reads up to `headerFrames` frames into m_samples, growing the store only
// as reads succeed: the header's count is a hint, and a hostile file may
// claim far more than it holds. Returns the frames read, or -1 when the
// store would outgrow its 32-bit limit.
sf_count_t SonraFilePlayNode::readWhole(SNDFILE* file, unsigned channels, sf_count_t headerFrames)
{
    const uint64_t bytesPerFrame = uint64_t(channels) * 2;
    // The position must be able to step one frame past the end.
    const uint64_t limitBytes = MAX_STORE_BYTES - uint64_t(frameSize()) * channels;
    const sf_count_t chunkFrames = std::max<sf_count_t>(1, sf_count_t(READ_CHUNK_BYTES / bytesPerFrame));
    std::vector<char>& store = d->m_samples;
    sf_count_t framesRead = 0;
    while (framesRead < headerFrames) {
        const sf_count_t want = std::min(chunkFrames, headerFrames - framesRead);
        if (uint64_t(framesRead + want) * bytesPerFrame > limitBytes)
            return -1;
        store.resize(std::size_t(framesRead + want) * bytesPerFrame);
        short* const end = reinterpret_cast<short*>(store.data() + framesRead * bytesPerFrame);
        const sf_count_t got = sf_readf_short(file, end, want);
        if (got <= 0)
            break;
        framesRead += got;
    }
    store.resize(std::size_t(framesRead) * bytesPerFrame);
    store.shrink_to_fit();
    return framesRead;
}

// Converts the whole store to the graph's rate in one pass, then pads it
// with silence to whole graph frames so that a loop wraps without a gap.
bool SonraFilePlayNode::convertRate(unsigned channels, unsigned fileRate)
{
    int error = 0;
    speex::ResamplerPtr resampler(speex_resampler_init(channels, fileRate, sampleRate(), FILE_RESAMPLE_QUALITY, &error));
    if (error != 0 || !resampler)
        return false;
    const std::size_t bytesPerFrame = static_cast<std::size_t>(channels) * 2;
    const uint64_t frames = d->m_samples.size() / bytesPerFrame;
    // Twice the expected length, in single precision as the ratio is taken.
    const float capacity = std::roundf(2.0f * (static_cast<float>(sampleRate()) / static_cast<float>(fileRate) *
                                               static_cast<float>(frames)));
    const uint64_t frameBytes = static_cast<uint64_t>(frameSize()) * channels;
    if (!(capacity >= 0) || double(capacity) * double(bytesPerFrame) + double(frameBytes) > double(MAX_STORE_BYTES))
        return false;
    std::vector<char> converted(static_cast<std::size_t>(capacity) * bytesPerFrame);
    spx_uint32_t inFrames = static_cast<spx_uint32_t>(frames);
    spx_uint32_t outFrames = static_cast<spx_uint32_t>(capacity);
    speex_resampler_process_interleaved_int(resampler.get(), reinterpret_cast<const spx_int16_t*>(d->m_samples.data()),
                                            &inFrames, reinterpret_cast<spx_int16_t*>(converted.data()), &outFrames);
    std::size_t bytes = static_cast<std::size_t>(outFrames) * bytesPerFrame;
    if (frameBytes != 0 && bytes % frameBytes != 0)
        bytes += frameBytes - bytes % frameBytes;
    converted.resize(bytes);
    d->m_samples.swap(converted);
    return true;
}

void SonraFilePlayNode::stop()
{
    d->m_stopped = true;
    std::vector<char>().swap(d->m_samples);
    d->m_position = 0;
    if (d->m_callback) {
        // Cleared before the call, so that a callback starting a new file
        // keeps the new callback.
        const boost::function<void ()> callback = d->m_callback;
        d->m_callback.clear();
        callback();
    }
}

std::string SonraFilePlayNode::fileName() const
{
    return d->m_fileName;
}

void SonraFilePlayNode::reset(unsigned /*offset*/)
{
    if (!d->m_stopped)
        d->m_position = 0;
}

boost::shared_ptr<std::vector<char> > SonraFilePlayNode::doProcess()
{
    if (d->m_samples.empty())
        return boost::shared_ptr<std::vector<char> >();
    if (d->m_position >= d->m_samples.size()) {
        if (!d->m_loop) {
            stop();
            return boost::shared_ptr<std::vector<char> >();
        }
        d->m_position = 0;
    }
    const uint32_t frameBytes = frameSize() * outputChannels();
    boost::shared_ptr<std::vector<char> > out;
    // The unpadded tail of a file played at its own rate is not output.
    if (uint64_t(d->m_position) + frameBytes <= d->m_samples.size())
        out = boost::make_shared<std::vector<char> >(d->m_samples.begin() + d->m_position,
                                                     d->m_samples.begin() + d->m_position + frameBytes);
    d->m_position += frameBytes;
    return out;
}

} // namespace ombrel
