#include "host/answer_stream.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>

#include "host/formatted.h"

namespace qv::host {
namespace {

constexpr switch_size_t CHUNK = 1024;

// Makes room for `size` bytes and the terminating zero. False without memory.
bool reserve(switch_stream_handle_t& handle, switch_size_t size) {
    const switch_size_t need = handle.data_len + size + 1;
    if (need <= handle.data_size) {
        return true;
    }
    void* grown = std::realloc(handle.data, need + handle.alloc_chunk);
    if (!grown) {
        return false;
    }
    handle.data = grown;
    handle.data_size = handle.alloc_len = need + handle.alloc_chunk;
    return true;
}

// The caller has reserved the room.
void append(switch_stream_handle_t& handle, const void* data, switch_size_t size) {
    char* text = static_cast<char*>(handle.data);
    if (size > 0) {
        std::memcpy(text + handle.data_len, data, size);
    }
    handle.data_len += size;
    text[handle.data_len] = '\0';
    handle.end = text + handle.data_len;
}

switch_status_t write_raw(switch_stream_handle_t* handle, uint8_t* data, switch_size_t size) {
    if (!reserve(*handle, size)) {
        return SWITCH_STATUS_FALSE;
    }
    append(*handle, data, size);
    return SWITCH_STATUS_SUCCESS;
}

switch_status_t write_formatted(switch_stream_handle_t* handle, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::optional<std::string> text = formatted(format, arguments);
    va_end(arguments);
    if (!text || !reserve(*handle, text->size())) {
        return SWITCH_STATUS_FALSE;
    }
    append(*handle, text->data(), text->size());
    return SWITCH_STATUS_SUCCESS;
}

}  // namespace

AnswerStream::AnswerStream() {
    handle_.write_function = write_formatted;
    handle_.raw_write_function = write_raw;
    handle_.alloc_chunk = CHUNK;
    if (!reserve(handle_, 0)) {
        throw std::bad_alloc();
    }
    append(handle_, nullptr, 0);
}

AnswerStream::~AnswerStream() {
    std::free(handle_.data);
}

std::string AnswerStream::text() const {
    return {static_cast<const char*>(handle_.data), handle_.data_len};
}

}  // namespace qv::host
