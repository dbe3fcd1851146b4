// What every fuzz target shares: a reader that turns the fuzzer's bytes
// into choices, and an oracle check that stops the run like a crash.
#ifndef SONRA_FUZZUTIL_H
#define SONRA_FUZZUTIL_H

#include "testutil.h"

#include <boost/make_shared.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#define FUZZ_CHECK(condition)                                                                     \
    do {                                                                                          \
        if (!(condition)) {                                                                       \
            std::fprintf(stderr, "oracle failed: %s at %s:%d\n", #condition, __FILE__, __LINE__); \
            std::abort();                                                                         \
        }                                                                                         \
    } while (0)

namespace sonrafuzz {

typedef boost::shared_ptr<std::vector<char> > Frame;

using sonratest::ioService;

// Reads past the end as zeros, so every input is a complete program.
class Reader {
public:
    Reader(const uint8_t* data, std::size_t size) : m_data(data), m_size(size), m_at(0) {}
    bool done() const { return m_at >= m_size; }
    uint8_t byte() { return m_at < m_size ? m_data[m_at++] : 0; }
    unsigned u16() { return byte() | unsigned(byte()) << 8; }
    uint32_t u32() { return u16() | uint32_t(u16()) << 16; }
    unsigned choice(unsigned count) { return byte() % count; }
    // A length byte (or two when `wide`), then that many bytes (fewer at the end).
    Frame block(bool wide = false)
    {
        const std::size_t wanted = wide ? u16() : byte();
        const std::size_t length = std::min(wanted, m_size - std::min(m_at, m_size));
        auto frame = boost::make_shared<std::vector<char> >(m_data + m_at, m_data + m_at + length);
        m_at += length;
        return frame;
    }

private:
    const uint8_t* m_data;
    std::size_t m_size, m_at;
};

} // namespace sonrafuzz

// Each target defines the fuzzer's entry point.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

#endif
