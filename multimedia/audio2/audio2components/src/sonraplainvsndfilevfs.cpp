#include "sonraplainvsndfilevfs.h"

#include <cstdio>
#include <memory>

namespace ombrel {

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

} // namespace

struct SonraPlainVSndFileVfs_p {
    std::unique_ptr<std::FILE, FileCloser> m_file;  // the open file; none when closed
    boost::shared_ptr<SF_VIRTUAL_IO> m_virtualIo;   // kept while the file is open

    // Every callback answers like an empty, unwritable file while none is open.
    static std::FILE* fileOf(void* userData)
    {
        SonraVSndFileVfs* vfs = static_cast<SonraVSndFileVfs*>(userData);
        return static_cast<SonraPlainVSndFileVfs*>(vfs)->d->m_file.get();
    }

    static sf_count_t length(void* userData)
    {
        std::FILE* file = fileOf(userData);
        if (!file)
            return -1;
        const off_t here = ftello(file);
        if (here < 0 || fseeko(file, 0, SEEK_END) != 0)
            return -1;
        const off_t end = ftello(file);
        fseeko(file, here, SEEK_SET);
        return end;
    }
    static sf_count_t seek(sf_count_t offset, int whence, void* userData)
    {
        std::FILE* file = fileOf(userData);
        if (!file)
            return -1;
        return fseeko(file, offset, whence) == 0 ? ftello(file) : -1;
    }
    static sf_count_t read(void* buffer, sf_count_t bytes, void* userData)
    {
        if (!fileOf(userData) || bytes <= 0)
            return 0;
        return static_cast<sf_count_t>(std::fread(buffer, 1, static_cast<std::size_t>(bytes), fileOf(userData)));
    }
    static sf_count_t write(const void* buffer, sf_count_t bytes, void* userData)
    {
        if (!fileOf(userData) || bytes <= 0)
            return 0;
        return static_cast<sf_count_t>(std::fwrite(buffer, 1, static_cast<std::size_t>(bytes), fileOf(userData)));
    }
    static sf_count_t tell(void* userData) { return fileOf(userData) ? ftello(fileOf(userData)) : -1; }
};

SonraPlainVSndFileVfs::SonraPlainVSndFileVfs() : d(new SonraPlainVSndFileVfs_p) {}

SonraPlainVSndFileVfs::~SonraPlainVSndFileVfs() = default;

bool SonraPlainVSndFileVfs::open(const std::string& fileName, int mode)
{
    close();
    if (mode != VFS_READ && mode != VFS_WRITE)
        return false;
    // Writers may read back what they wrote (libsndfile rewrites headers).
    d->m_file.reset(std::fopen(fileName.c_str(), mode == VFS_READ ? "rb" : "w+b"));
    return d->m_file != nullptr;
}

void SonraPlainVSndFileVfs::close()
{
    d->m_virtualIo.reset();
    d->m_file.reset();
}

boost::shared_ptr<SF_VIRTUAL_IO> SonraPlainVSndFileVfs::virtualIo()
{
    if (!d->m_virtualIo)
        d->m_virtualIo.reset(new SF_VIRTUAL_IO{&SonraPlainVSndFileVfs_p::length, &SonraPlainVSndFileVfs_p::seek,
                                               &SonraPlainVSndFileVfs_p::read, &SonraPlainVSndFileVfs_p::write,
                                               &SonraPlainVSndFileVfs_p::tell});
    return d->m_virtualIo;
}

boost::shared_ptr<SonraVSndFileVfs> SonraPlainVSndFileVfs::vfs()
{
    return shared_from_this();
}

} // namespace ombrel
