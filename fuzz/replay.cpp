// Without libFuzzer each target is a plain program: it replays the inputs
// (files, or every file of a folder) through the same entry point.
#include "fuzzutil.h"

#include <boost/filesystem.hpp>

#include <fstream>
#include <iterator>
#include <string>

namespace fs = boost::filesystem;

int main(int argc, char** argv)
{
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
