#include "sonrafilewriternode.h"

#include "shared.h"
#include "sonrasndfile_p.h"

#include <cstdint>

namespace ombrel {

const int SonraFileWriterNode::FILE_FORMAT;

struct SonraFileWriterNode_p {
    boost::shared_ptr<SonraVSndFileVfs> m_vfsPtr;
    sndfile::FilePtr m_sndFile;   // none when stopped
    uint32_t m_channels = 1;      // of the input frames and the file
    std::string m_fileName;
    bool m_started = false;
    bool m_paused = false;
    SF_INFO m_sfInfo = SF_INFO(); // as handed to libsndfile
};

SonraFileWriterNode::SonraFileWriterNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                         unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraFileWriterNode_p)
{
}

SonraFileWriterNode::~SonraFileWriterNode()
{
    stop();
}

void SonraFileWriterNode::reset(unsigned /*offset*/) {}

void SonraFileWriterNode::setVSndFile(boost::shared_ptr<SonraVSndFileVfs> vfs)
{
    d->m_vfsPtr = vfs;
}

int SonraFileWriterNode::start(const std::string& fileName, unsigned channels)
{
    SONRA_ASSERT(d->m_vfsPtr);
    if (d->m_started)
        stop();
    d->m_fileName = fileName;
    d->m_channels = channels;
    if (!d->m_vfsPtr->open(fileName, VFS_WRITE))
        return -1;
    d->m_sfInfo = SF_INFO();
    d->m_sfInfo.samplerate = static_cast<int>(sampleRate());
    d->m_sfInfo.seekable = 1;
    d->m_sfInfo.channels = static_cast<int>(channels);
    d->m_sfInfo.format = FILE_FORMAT;
    d->m_sndFile.reset(sf_open_virtual(d->m_vfsPtr->virtualIo().get(), SFM_WRITE, &d->m_sfInfo, d->m_vfsPtr.get()));
    if (!d->m_sndFile) {
        warning("audio2", false) << "Sound file writer failed to open sndfile: " << sf_strerror(nullptr);
        return -1;
    }
    d->m_paused = false;
    d->m_started = true;
    return 0;
}

void SonraFileWriterNode::stop()
{
    d->m_started = false;
    d->m_paused = false;
    if (d->m_sndFile) {
        sf_write_sync(d->m_sndFile.get());
        d->m_sndFile.reset();
    }
    if (d->m_vfsPtr)
        d->m_vfsPtr->close();
    d->m_fileName.clear();
}

void SonraFileWriterNode::pause()
{
    d->m_paused = true;
    if (d->m_sndFile)
        sf_write_sync(d->m_sndFile.get());
}

void SonraFileWriterNode::resume()
{
    d->m_paused = false;
}

void SonraFileWriterNode::seek(unsigned seconds)
{
    if (d->m_sndFile)
        sf_seek(d->m_sndFile.get(), seconds * static_cast<uint32_t>(d->m_sfInfo.samplerate), SEEK_SET);
}

std::string SonraFileWriterNode::fileName() const
{
    return d->m_fileName;
}

boost::shared_ptr<std::vector<char> > SonraFileWriterNode::doProcess()
{
    if (!d->m_started || d->m_paused)
        return boost::shared_ptr<std::vector<char> >();
    const boost::shared_ptr<std::vector<char> > in = getInputData();
    if (!in || in->empty())
        return boost::shared_ptr<std::vector<char> >();
    // A trailing partial frame is dropped.
    const sf_count_t frames = static_cast<sf_count_t>(in->size() / (static_cast<std::size_t>(d->m_channels) * 2));
    if (sf_writef_short(d->m_sndFile.get(), reinterpret_cast<const short*>(in->data()), frames) < frames) {
        warning("audio2", false) << "Audio2 file writer failed to write data";
        stop();
    }
    return boost::shared_ptr<std::vector<char> >();
}

} // namespace ombrel
