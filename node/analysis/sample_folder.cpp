#include "node/analysis/sample_folder.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <system_error>

#include "tools/sound_file.h"

namespace qv::node::analysis {

namespace {

namespace fs = std::filesystem;

bool is_wav(const fs::path& path) {
    std::string ending = path.extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ending == ".wav";
}

std::vector<fs::path> wav_files(const fs::path& folder) {
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    std::vector<fs::path> files;
    while (!error && entry != fs::directory_iterator()) {
        std::error_code unknown;
        if (is_wav(entry->path()) && !entry->is_directory(unknown)) {
            files.push_back(entry->path());
        }
        entry.increment(error);
    }
    if (error) {
        throw std::runtime_error("cannot read the samples folder " + folder.string() + ": " +
                                 error.message());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// Returns why the file is refused, or an empty text.
std::string add_file(const fs::path& path, SampleIndexBuilder& builder) {
    SF_INFO info{};
    std::string error;
    const tools::SoundFile file =
        tools::open_sound_file([&] { return sf_open(path.c_str(), SFM_READ, &info); }, error);
    if (file == nullptr) {
        return error;
    }
    if (info.channels != 1) {
        return std::to_string(info.channels) + " channels, not 1";
    }
    // The header may promise more samples than the file contains.
    const double most = SampleIndexBuilder::LONGEST_S * info.samplerate + 1;
    const auto wanted = static_cast<sf_count_t>(
        std::min(most, static_cast<double>(std::max<sf_count_t>(info.frames, 0))));
    std::vector<float> samples(static_cast<std::size_t>(wanted));
    const sf_count_t read = sf_readf_float(file.get(), samples.data(), wanted);
    if (sf_error(file.get()) != SF_ERR_NO_ERROR) {
        return sf_strerror(file.get());
    }
    return builder.add(path.stem().string(), samples.data(), static_cast<std::size_t>(read),
                       info.samplerate);
}

}  // namespace

SampleFolder load_folder(const fs::path& folder) {
    SampleIndexBuilder builder;
    SampleFolder result;
    for (const fs::path& path : wav_files(folder)) {
        std::string reason = add_file(path, builder);
        if (!reason.empty()) {
            result.refused.push_back({path.filename().string(), std::move(reason)});
        }
    }
    result.index = builder.build();
    return result;
}

}  // namespace qv::node::analysis
