// The stream to which an API command writes its answer, as the host's console provides it:
// a text that grows. The caller who runs the command owns it; one thread at a time uses it.
#pragma once

#include <switch.h>

#include <string>

namespace qv::host {

class AnswerStream {
  public:
    AnswerStream();
    ~AnswerStream();
    AnswerStream(const AnswerStream&) = delete;
    AnswerStream& operator=(const AnswerStream&) = delete;

    switch_stream_handle_t* get() { return &handle_; }
    std::string text() const;

  private:
    switch_stream_handle_t handle_{};
};

}  // namespace qv::host
