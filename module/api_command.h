// The API command `quorvane`: module settings, and the features of one call.
//
// A command lives on the host thread that issued it, for as long as it runs; many may
// run at once. It answers into the host's stream: "-ERR..." or "+OK..." for a call,
// the plain value for a setting.
#pragma once

#include <switch.h>

#include <memory>
#include <string>
#include <vector>

#include "module/module_context.h"

namespace qv::freeswitch {

// The words the command takes. The misspelling of "audio_activity" is the text's own and
// stays; the accepted word is the right one.
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

    // Does what the command is for and writes its answer.
    virtual void execute() = 0;

    // The command that `words` name; null, and an error written, for none. `words`,
    // `module` and `stream` outlive the command.
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
