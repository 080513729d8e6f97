// What the port answers: the table of its paths, and who may ask for them. Knows nothing of
// connections; takes plain requests and the time, and returns plain responses. Any thread may call
// it.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "node/web/access.h"
#include "node/web/call_board.h"
#include "node/web/file_folder.h"
#include "node/web/http.h"
#include "node/web/live_rows.h"

namespace qv::node::web {

class Site {
  public:
    // The path of the websocket, which the server connects to a page.
    static constexpr const char* LIVE_PATH = "/api/live";

    // Returns the metrics as Prometheus reads them. Any thread may call it.
    using MetricsText = std::function<std::string()>;

    // All of them must outlive this object. The folder is that of the calls' files.
    Site(const CallBoard& board, LiveRows& rows, const FileFolder& folder, Access& access,
         MetricsText metrics)
        : board_(board),
          rows_(rows),
          folder_(folder),
          access_(access),
          metrics_(std::move(metrics)) {}

    // Answers a request, which came at that time on the steady clock of the node.
    Response answer(const Request& request, Micros now) const;

    // Whether the request may open a live page: nullopt if so, and otherwise the answer.
    std::optional<Response> refuse_live(const Request& request, Micros now) const;
    // Whether the page that this request has opened may stay open.
    bool may_stay(const Request& request, Micros now) const;

  private:
    struct Route;

    static const Route* find_route(const std::string& path);
    std::optional<Response> refuse(const Request& request, Micros now) const;
    Response page_file(const Request& request, Micros now) const;
    Response log_in(const Request& request, Micros now) const;
    Response log_out(const Request& request, Micros now) const;
    Response calls(const Request& request, Micros now) const;
    Response call(const Request& request, Micros now) const;
    Response call_file(const Request& request, const std::string& uuid,
                       const std::string& name) const;
    Response metrics(const Request& request, Micros now) const;

    const CallBoard& board_;
    LiveRows& rows_;
    const FileFolder& folder_;
    Access& access_;
    const MetricsText metrics_;
};

}  // namespace qv::node::web
