// Small files that are written at once.
#pragma once

#include <string>

namespace qv::node {

// Writes all of the text or leaves no file behind; returns why it could not, or nothing.
std::string write_text_file(const std::string& path, const std::string& text);

}  // namespace qv::node
