// The smallest graph: two sources mixed into one frame, through the installed package.
#include <sonradevnode.h>
#include <sonramixernode.h>

#include <boost/make_shared.hpp>

#include <cstdint>
#include <cstring>
#include <iostream>

using namespace ombrel;

int main()
{
    auto io = boost::make_shared<boost::asio::io_service>();
    auto constant = [](int16_t value) {
        return [value]() {
            auto frame = boost::make_shared<std::vector<char> >(640);
            for (std::size_t i = 0; i < 320; ++i)
                std::memcpy(frame->data() + 2 * i, &value, 2);
            return frame;
        };
    };
    auto pipe = boost::make_shared<SonraPipe>(20);
    auto first = boost::make_shared<SonraDevNode>(constant(1000), io, 20, 16000);
    auto second = boost::make_shared<SonraDevNode>(constant(2000), io, 20, 16000);
    auto mixer = boost::make_shared<SonraMixerNode>(io, 20, 16000);
    pipe->connect(first, mixer);
    pipe->connect(second, mixer);
    pipe->processFrame();
    int16_t sample = 0;
    std::memcpy(&sample, mixer->outputData()->data(), 2);
    std::cout << "mixed " << mixer->outputData()->size() << " bytes, first sample " << sample << "\n";
    return 0;
}
