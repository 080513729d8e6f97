// The stream that an API command writes its answer to, as the host's console has it:
// a text that grows as it is written. Owned by whoever runs the command; one thread at
// a time.
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
