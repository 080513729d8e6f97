// Calls as JSON texts for the page. No state; any thread may call these functions.
#pragma once

#include <string>
#include <vector>

#include "node/calls/types.h"
#include "node/web/call_board.h"
#include "node/web/call_record.h"
#include "node/web/file_folder.h"

namespace qv::node::web {

// Returns the beginning of the object of a call that goes on: what changes seldom. call_text()
// completes it.
std::string facts_text(const CallRecord& record, const CallFacts& facts);

// Returns the whole object at `now`, on the steady clock of the node.
std::string call_text(const std::string& facts_text, const CallRecord& record,
                      const CallRecord::Reading& reading, Micros now);

// Returns that object with what is heard: `levels`, and `samples` that were found.
std::string heard_text(const std::string& call_text, const Levels& levels,
                       const std::vector<Mark>& samples);

std::string finished_text(const FinishedCall& call, const FileFolder& folder);

std::string mark_text(const Mark& mark);

// Returns the text as a JSON string, with quotation marks. Bytes that are not UTF-8 are replaced.
std::string json_string(const std::string& text);

// RFC 4648, with padding.
std::string base64(const std::string& bytes);

}  // namespace qv::node::web
