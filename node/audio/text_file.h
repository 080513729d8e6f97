// Writes a small file in one go.
#pragma once

#include <string>

namespace qv::node {

// Writes the whole text, or leaves no file behind. Returns why this failed, or an empty text.
std::string write_text_file(const std::string& path, const std::string& text);

}  // namespace qv::node
