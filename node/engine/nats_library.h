// Owning pointers to objects of the library for NATS. No state.
#pragma once

#include <nats/nats.h>

#include <memory>
#include <string>

namespace qv::node::nats {

template <auto Destroy>
struct Destroyer {
    template <typename Object>
    void operator()(Object* object) const {
        Destroy(object);
    }
};

using Options = std::unique_ptr<natsOptions, Destroyer<natsOptions_Destroy>>;
using Message = std::unique_ptr<natsMsg, Destroyer<natsMsg_Destroy>>;
using Connection = std::unique_ptr<natsConnection, Destroyer<natsConnection_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Destroyer<natsSubscription_Destroy>>;
using StreamContext = std::unique_ptr<jsCtx, Destroyer<jsCtx_Destroy>>;

inline std::string text_of(natsStatus status) {
    return natsStatus_GetText(status);
}

// Why the library's latest call in this thread failed, without the line of its source, which the
// library puts before it.
inline std::string last_error(natsStatus status) {
    const char* error = nats_GetLastError(nullptr);
    const std::string text = error != nullptr ? error : "";
    const std::size_t place = text.rfind('(', 0) == 0 ? text.find("): ") : std::string::npos;
    const std::string reason = place != std::string::npos ? text.substr(place + 3) : text;
    return reason.empty() ? text_of(status) : reason;
}

}  // namespace qv::node::nats
