// In place of nats_publisher.cpp, where the library for NATS is missing.
#include "node/engine/publisher.h"

namespace qv::node {

std::unique_ptr<Publisher> make_publisher(const EngineSettings& /*settings*/, std::string& error) {
    error = "this program was built without libnats, the library for NATS";
    return nullptr;
}

}  // namespace qv::node
