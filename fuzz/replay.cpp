// Without libFuzzer each target is a plain program: it replays the inputs
// (files, or every file of a folder) through the same entry point, or with
// --write-seeds DIR writes its seed corpus.
#include "fuzzutil.h"

#include <boost/filesystem.hpp>

#include <fstream>
#include <iterator>
#include <string>

namespace fs = boost::filesystem;

int main(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == "--write-seeds") {
        fs::create_directories(argv[2]);
        const std::vector<sonrafuzz::Bytes> seeds = fuzzSeeds();
        for (std::size_t i = 0; i < seeds.size(); ++i)
            std::ofstream((fs::path(argv[2]) / ("seed" + std::to_string(i))).string(), std::ios::binary)
                .write(reinterpret_cast<const char*>(seeds[i].data()), std::streamsize(seeds[i].size()));
        return 0;
    }
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i]))
            inputs.push_back(argv[i]);
        else
            inputs.insert(inputs.end(), fs::directory_iterator(argv[i]), fs::directory_iterator());
    }
    for (const fs::path& path : inputs) {
        std::ifstream in(path.string(), std::ios::binary);
        const std::vector<char> input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    }
    return inputs.empty(); // an empty corpus is a mistake
}
