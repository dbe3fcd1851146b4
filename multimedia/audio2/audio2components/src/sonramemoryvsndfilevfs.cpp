#include "sonramemoryvsndfilevfs.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>

namespace ombrel {

struct SonraMemoryVSndFileVfs_p {
    std::map<std::string, std::vector<char> > m_files; // stored files by name
    std::vector<char>* m_open = nullptr;               // the open file's bytes; none when closed
    sf_count_t m_position = 0;                         // bytes from the start of the open file
    boost::shared_ptr<SF_VIRTUAL_IO> m_virtualIo;      // kept while the file is open

    static SonraMemoryVSndFileVfs_p& of(void* userData)
    {
        SonraVSndFileVfs* vfs = static_cast<SonraVSndFileVfs*>(userData);
        return *static_cast<SonraMemoryVSndFileVfs*>(vfs)->d;
    }
    sf_count_t size() const { return m_open ? static_cast<sf_count_t>(m_open->size()) : 0; }

    static sf_count_t length(void* userData) { return of(userData).size(); }
    static sf_count_t seek(sf_count_t offset, int whence, void* userData)
    {
        SonraMemoryVSndFileVfs_p& file = of(userData);
        const sf_count_t base = whence == SEEK_CUR ? file.m_position : whence == SEEK_END ? file.size() : 0;
        if (!file.m_open || offset < -base || offset > INT32_MAX)
            return -1;
        file.m_position = base + offset;
        return file.m_position;
    }
    static sf_count_t read(void* buffer, sf_count_t bytes, void* userData)
    {
        SonraMemoryVSndFileVfs_p& file = of(userData);
        const sf_count_t count = std::max<sf_count_t>(0, std::min(bytes, file.size() - file.m_position));
        if (count > 0)
            std::memcpy(buffer, file.m_open->data() + file.m_position, static_cast<std::size_t>(count));
        file.m_position += count;
        return count;
    }
    static sf_count_t write(const void* buffer, sf_count_t bytes, void* userData)
    {
        SonraMemoryVSndFileVfs_p& file = of(userData);
        if (!file.m_open || bytes <= 0)
            return 0;
        const std::size_t end = static_cast<std::size_t>(file.m_position + bytes);
        if (end > file.m_open->size())
            file.m_open->resize(end); // a write past the end leaves a zeroed gap, as on disk
        std::memcpy(file.m_open->data() + file.m_position, buffer, static_cast<std::size_t>(bytes));
        file.m_position += bytes;
        return bytes;
    }
    static sf_count_t tell(void* userData) { return of(userData).m_position; }
};

SonraMemoryVSndFileVfs::SonraMemoryVSndFileVfs() : d(new SonraMemoryVSndFileVfs_p) {}

SonraMemoryVSndFileVfs::SonraMemoryVSndFileVfs(const std::string& fileName, std::vector<char> bytes)
    : SonraMemoryVSndFileVfs()
{
    setFile(fileName, std::move(bytes));
}

SonraMemoryVSndFileVfs::~SonraMemoryVSndFileVfs() = default;

void SonraMemoryVSndFileVfs::setFile(const std::string& fileName, std::vector<char> bytes)
{
    const auto found = d->m_files.find(fileName);
    if (found != d->m_files.end() && &found->second == d->m_open)
        close();
    d->m_files[fileName] = std::move(bytes);
}

std::vector<char> SonraMemoryVSndFileVfs::file(const std::string& fileName) const
{
    const auto found = d->m_files.find(fileName);
    return found == d->m_files.end() ? std::vector<char>() : found->second;
}

bool SonraMemoryVSndFileVfs::hasFile(const std::string& fileName) const
{
    return d->m_files.count(fileName) != 0;
}

bool SonraMemoryVSndFileVfs::open(const std::string& fileName, int mode)
{
    close();
    if (mode == VFS_WRITE) {
        d->m_files[fileName].clear();
    } else if (mode != VFS_READ || !hasFile(fileName)) {
        return false;
    }
    d->m_open = &d->m_files[fileName];
    d->m_position = 0;
    return true;
}

void SonraMemoryVSndFileVfs::close()
{
    d->m_virtualIo.reset();
    d->m_open = nullptr;
    d->m_position = 0;
}

boost::shared_ptr<SF_VIRTUAL_IO> SonraMemoryVSndFileVfs::virtualIo()
{
    if (!d->m_virtualIo)
        d->m_virtualIo.reset(new SF_VIRTUAL_IO{&SonraMemoryVSndFileVfs_p::length, &SonraMemoryVSndFileVfs_p::seek,
                                               &SonraMemoryVSndFileVfs_p::read, &SonraMemoryVSndFileVfs_p::write,
                                               &SonraMemoryVSndFileVfs_p::tell});
    return d->m_virtualIo;
}

boost::shared_ptr<SonraVSndFileVfs> SonraMemoryVSndFileVfs::vfs()
{
    return shared_from_this();
}

} // namespace ombrel
