// An audio store in memory. Its files can be made to fail.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "node/audio/audio_files.h"

namespace qv::tests {

struct FakeFile {
    int sample_rate = 0;
    int channels = 0;
    std::vector<std::int16_t> samples;
    std::size_t writes = 0;
    bool closed = false;
};

class FakeAudioStore : public node::AudioStore {
  public:
    bool exists(const std::string& name) const override { return files.count(name) != 0; }

    std::unique_ptr<node::AudioFile> create(const std::string& name, int sample_rate,
                                            int channels) override {
        files[name] = {};
        files[name].sample_rate = sample_rate;
        files[name].channels = channels;
        return std::make_unique<Handle>(*this, name);
    }

    std::shared_ptr<const node::PendingFile> write_text(const std::string& name,
                                                        std::string text) override {
        texts[name] = std::move(text);
        return std::make_shared<node::PendingFile>(node::PendingFile{{name, error}, true});
    }

    std::size_t open_files() const override { return 0; }

    std::map<std::string, FakeFile> files;
    std::map<std::string, std::string> texts;
    std::string error;                          // If set, every write fails with it.
    std::map<std::string, std::string> errors;  // By name: writes to that file fail with the text.

  private:
    class Handle : public node::AudioFile {
      public:
        Handle(FakeAudioStore& store, std::string name) : store_(store), name_(std::move(name)) {}

        bool write(const std::int16_t* samples, std::size_t count) override {
            const auto own = store_.errors.find(name_);
            if (error_.empty()) {
                error_ = own != store_.errors.end() ? own->second : store_.error;
            }
            if (!error_.empty()) {
                return false;
            }
            FakeFile& file = store_.files[name_];
            file.samples.insert(file.samples.end(), samples, samples + count);
            ++file.writes;
            return true;
        }
        bool write_silence(std::uint64_t count) override {
            const std::vector<std::int16_t> zeros(count);
            return write(zeros.data(), zeros.size());
        }
        bool close() override {
            store_.files[name_].closed = true;
            return error_.empty();
        }
        node::FileFacts facts() const override {
            const FakeFile& file = store_.files[name_];
            const auto channels = static_cast<std::uint64_t>(file.channels);
            return {file.sample_rate, file.channels, file.samples.size() / channels, {}, 0, {}};
        }
        const std::string& path() const override { return name_; }
        const std::string& error() const override { return error_; }

      private:
        FakeAudioStore& store_;
        std::string name_;
        std::string error_;
    };
};

}  // namespace qv::tests
