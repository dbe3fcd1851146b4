// Without libFuzzer each target is a plain program: it replays the inputs
// (files, or every file of a folder) through the same entry point, or with
// --write-seeds DIR writes its seed corpus.
#include "fuzzutil.h"

#include <boost/filesystem.hpp>

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

namespace fs = boost::filesystem;

namespace {

void replay(const fs::path& path)
{
    std::ifstream in(path.string(), std::ios::binary);
    const std::vector<char> input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
}

int writeSeeds(const fs::path& folder)
{
    fs::create_directories(folder);
    const std::vector<sonrafuzz::Bytes> seeds = fuzzSeeds();
    for (std::size_t i = 0; i < seeds.size(); ++i) {
        std::ofstream out((folder / ("seed" + std::to_string(i))).string(), std::ios::binary);
        out.write(reinterpret_cast<const char*>(seeds[i].data()), std::streamsize(seeds[i].size()));
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == "--write-seeds")
        return writeSeeds(argv[2]);
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            replay(argv[i]), ++count;
            continue;
        }
        for (const fs::directory_entry& entry : fs::directory_iterator(argv[i]))
            replay(entry.path()), ++count;
    }
    std::cout << "replayed " << count << " inputs\n";
    return 0;
}
