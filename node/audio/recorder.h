// Writes the audio of each call that has a file stem: one file per side, one file of both sides, or
// both kinds. An output. Belongs to one thread.
#pragma once

#include <memory>

#include "node/audio/audio_files.h"
#include "node/audio/recording.h"
#include "node/calls/call_listener.h"

namespace qv::node {

class Recorder : public CallListener {
  public:
    struct Options {
        bool sides = true;    // One file per side.
        bool stereo = false;  // One file of both sides.
        RecordingOptions recording;
    };

    // The store must outlive the recorder.
    Recorder(AudioStore& store, const Options& options) : store_(store), options_(options) {}

    std::unique_ptr<CallListener> begin_call(Call& call) override;

  private:
    AudioStore& store_;
    Options options_;
};

}  // namespace qv::node
