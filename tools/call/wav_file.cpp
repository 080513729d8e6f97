#include "tools/call/wav_file.h"

#include <sndfile.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <memory>
#include <system_error>
#include <vector>

namespace qv::tools::call {
namespace {

using File = std::unique_ptr<SNDFILE, decltype(&sf_close)>;

constexpr double TONE_AMPLITUDE = 8000;
constexpr double TWO_PI = 6.283185307179586;

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw FileError(path + ": " + why);
}

// For these errors the library's own text is only "System error.".
void check_file(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        refuse(path, std::generic_category().message(errno));
    }
    if (S_ISDIR(status.st_mode)) {
        refuse(path, "is a folder, not a WAV file");
    }
}

bool is_wav(int format) {
    const int container = format & SF_FORMAT_TYPEMASK;
    return container == SF_FORMAT_WAV || container == SF_FORMAT_WAVEX ||
           container == SF_FORMAT_RF64;
}

bool is_pcm(int format) {
    switch (format & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_PCM_U8:
        case SF_FORMAT_PCM_16:
        case SF_FORMAT_PCM_24:
        case SF_FORMAT_PCM_32:
            return true;
        default:
            return false;
    }
}

std::string format_name(int part) {
    SF_FORMAT_INFO info{};
    info.format = part;
    if (sf_command(nullptr, SFC_GET_FORMAT_INFO, &info, sizeof(info)) != 0 || !info.name) {
        return "unknown";
    }
    return info.name;
}

void check_format(const std::string& path, const SF_INFO& info) {
    if (!is_wav(info.format)) {
        refuse(path, "is no WAV file, but " + format_name(info.format & SF_FORMAT_TYPEMASK));
    }
    if (!is_pcm(info.format)) {
        refuse(path, "is encoded as " + format_name(info.format & SF_FORMAT_SUBMASK) +
                         "; only PCM WAV files can be played");
    }
    if (info.channels != 1) {
        refuse(path, "has " + std::to_string(info.channels) +
                         " channels; a side of a call has one (mono)");
    }
    const auto rate = static_cast<std::uint32_t>(info.samplerate);
    if (rate < MIN_SAMPLE_RATE || rate > MAX_SAMPLE_RATE) {
        refuse(path,
               "has " + std::to_string(rate) + " samples a second; 8000 to 48000 can be played");
    }
    if (info.frames == 0) {
        refuse(path, "holds no audio");
    }
}

std::string name_of(const std::string& path) {
    return path.substr(path.find_last_of('/') + 1);
}

}  // namespace

Audio load_wav(const std::string& path) {
    check_file(path);
    SF_INFO info{};
    const File file(sf_open(path.c_str(), SFM_READ, &info), &sf_close);
    if (!file) {
        refuse(path, std::string("cannot be read: ") + sf_strerror(nullptr));
    }
    check_format(path, info);
    auto samples =
        std::make_shared<std::vector<std::int16_t>>(static_cast<std::size_t>(info.frames));
    const sf_count_t read = sf_read_short(file.get(), samples->data(), info.frames);
    if (read != info.frames) {
        refuse(path, "ends after " + std::to_string(read) + " of " + std::to_string(info.frames) +
                         " samples");
    }
    return {name_of(path), static_cast<std::uint32_t>(info.samplerate), std::move(samples)};
}

Audio make_tone(std::uint32_t rate, double hertz, double seconds) {
    auto samples = std::make_shared<std::vector<std::int16_t>>();
    const auto count = static_cast<std::size_t>(std::lround(seconds * rate));
    for (std::size_t i = 0; i < count; ++i) {
        const double phase = TWO_PI * hertz * static_cast<double>(i) / rate;
        samples->push_back(
            static_cast<std::int16_t>(std::lround(TONE_AMPLITUDE * std::sin(phase))));
    }
    const std::string name = "tone of " + std::to_string(std::lround(hertz)) + " Hz";
    return {name, rate, std::move(samples)};
}

}  // namespace qv::tools::call
