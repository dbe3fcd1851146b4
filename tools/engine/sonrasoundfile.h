// Sound files for the tools: any file libsndfile reads, mixed to mono and
// resampled to the rate a path runs at; 16-bit WAV out.
#ifndef SONRA_SOUNDFILE_H
#define SONRA_SOUNDFILE_H

#include <cstdint>
#include <string>
#include <vector>

namespace sonratool {

// Mono at `rate` Hz; throws a message naming the file when it cannot be read.
std::vector<int16_t> readMono(const std::string& path, unsigned rate);
// `samples` interleaved over `channels`, at `rate` Hz.
void writeWav(const std::string& path, const std::vector<int16_t>& samples, unsigned rate, unsigned channels = 1);

} // namespace sonratool

#endif
