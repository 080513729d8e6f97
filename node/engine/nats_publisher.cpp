#include <thread>
#include <utility>

#include "node/engine/nats_engine.h"
#include "node/engine/publisher.h"

namespace qv::node {

namespace {

// A thread that the library or the spool's disk does not let go is left behind with its engine.
class NatsPublisher : public Publisher {
  public:
    explicit NatsPublisher(std::shared_ptr<nats::Engine> engine) : engine_(std::move(engine)) {
        try {
            thread_ = std::thread([engine = engine_] { engine->run(); });
            if (engine_->has_spool()) {
                spool_thread_ = std::thread([engine = engine_] { engine->run_spool(); });
            }
        } catch (...) {
            NatsPublisher::finish();
            throw;
        }
    }
    ~NatsPublisher() override { NatsPublisher::finish(); }
    NatsPublisher(const NatsPublisher&) = delete;
    NatsPublisher& operator=(const NatsPublisher&) = delete;

    const std::string& run() const override { return engine_->run_id(); }
    void push(EngineEvent event) override { engine_->push(std::move(event)); }
    void push(EngineChunk chunk) override { engine_->push(std::move(chunk)); }
    EngineFigures figures() const override { return engine_->figures(); }
    News take_news() override { return engine_->take_news(); }
    bool wait(std::chrono::milliseconds longest) override { return engine_->wait(longest); }

    Left finish() override {
        if (thread_.joinable()) {
            end(thread_, engine_->stop());
        }
        if (spool_thread_.joinable()) {
            end(spool_thread_, engine_->stop_spool());
        }
        return engine_->left();
    }

  private:
    static void end(std::thread& thread, bool has_ended) {
        if (has_ended) {
            thread.join();
        } else {
            thread.detach();
        }
    }

    const std::shared_ptr<nats::Engine> engine_;
    std::thread thread_;
    std::thread spool_thread_;  // If there is a spool.
};

}  // namespace

std::unique_ptr<Publisher> make_publisher(const EngineSettings& settings, std::string& error) {
    auto engine = std::make_shared<nats::Engine>(settings);
    error = engine->open();
    if (!error.empty()) {
        return nullptr;
    }
    return std::make_unique<NatsPublisher>(std::move(engine));
}

}  // namespace qv::node
