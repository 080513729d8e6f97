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

}  // namespace qv::node::nats
