// The page of the media node: builds its parts, opens its port, and closes it. Belongs to one
// thread, except call_listener(), which is an output and belongs to the threads of the calls.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "node/web/access.h"
#include "node/web/call_board.h"
#include "node/web/call_feed.h"
#include "node/web/file_folder.h"
#include "node/web/live_page.h"
#include "node/web/live_rows.h"
#include "node/web/server.h"
#include "node/web/settings.h"
#include "node/web/site.h"
#include "node/web/tls_relay.h"

namespace qv::node::web {

class WebOutput {
  public:
    struct Options {
        Settings settings;
        std::string folder;      // Of the calls' files; it exists.
        bool timelines = false;  // Whether calls get a picture.
    };

    // `from` is the address of a page. Any thread may call it.
    using OnListen = std::function<void(const std::string& from, const ListenNotice& notice)>;

    WebOutput(const Options& options, Site::MetricsText metrics, OnListen on_listen);

    // Opens the port. Returns why it cannot be used, or an empty text.
    std::string open();
    // Closes the port and all connections.
    void close();

    CallListener& call_listener() { return feed_; }
    // "http://127.0.0.1:8080/"
    std::string url() const;
    // Whether others can reach the port and no TLS protects what passes.
    bool is_in_the_clear() const;

  private:
    void open_port();
    Server::Handlers handlers();

    const Settings settings_;
    CallBoard board_;
    const FileFolder folder_;
    LiveRows rows_{board_, folder_};
    CallFeed feed_;
    const Site::MetricsText metrics_;
    const OnListen on_listen_;
    std::optional<Access> access_;                         // Once the port is open.
    std::optional<Site> site_;                             // Likewise.
    std::unique_ptr<TlsRelay> relay_;                      // Null without TLS.
    std::atomic<const TlsRelay*> present_relay_{nullptr};  // The same, once it is there.
    std::unique_ptr<Server> server_;
};

}  // namespace qv::node::web
