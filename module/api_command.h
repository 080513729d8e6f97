// The API command `quorvane`: module settings, and the features of one call.
//
// A command runs on the host thread that issued it; many may run at once. It writes its
// answer to the host's stream: "-ERR..." or "+OK..." for a call, the plain value for a
// setting.
#pragma once

#include <switch.h>

#include <memory>
#include <string>
#include <vector>

#include "module/module_context.h"

namespace qv::freeswitch {

// The words that the command accepts. The misspelling of "audio_activity" is kept for scripts
// that compare the text; the command accepts the correct spelling only. See docs/design.md,
// Odd on purpose: texts.
constexpr const char* API_USAGE =
    "version|dump_events|media_node|default_audio_activity|default_detection || "
    "<uuid> audio_acttivity|detection|features";

class ApiCommand {
  public:
    // Throws std::invalid_argument when `stream` is null.
    explicit ApiCommand(switch_stream_handle_t* stream);
    ApiCommand(const ApiCommand&) = delete;
    ApiCommand& operator=(const ApiCommand&) = delete;
    virtual ~ApiCommand() = default;

    // Carries out the command and writes its answer.
    virtual void execute() = 0;

    // Returns the command that `words` name. If there is none, writes an error and returns
    // null. `words`, `module` and `stream` must outlive the command.
    static std::unique_ptr<ApiCommand> create(const std::vector<std::string>& words,
                                              ModuleContext& module,
                                              switch_stream_handle_t* stream);

    switch_stream_handle_t* stream() const { return stream_; }

  private:
    switch_stream_handle_t* stream_;
};

// Runs the command line `text` (null counts as empty) and writes the answer to `stream`.
void run_api_command(const char* text, ModuleContext& module, switch_stream_handle_t* stream);

}  // namespace qv::freeswitch
