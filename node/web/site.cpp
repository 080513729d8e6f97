#include "node/web/site.h"

#include <algorithm>
#include <array>

#include "node/report/text.h"
#include "node/web/byte_range.h"
#include "node/web/call_files.h"
#include "node/web/call_json.h"
#include "node/web/page_files.h"

namespace qv::node::web {

namespace {

const std::string CALLS = "/api/calls/";
const std::string FILES = "/files/";
constexpr std::size_t SHOWN_SAMPLES = 10;

Response json(int status, const std::string& text) {
    Response response;
    response.status = status;
    response.type = "application/json";
    response.body = text + "\n";
    return response;
}

bool begins_with(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

// For programs, in their format, or for people.
Response problem(const Request& request, int status, const std::string& text) {
    return begins_with(request.path, "/api/")
               ? json(status, "{\"error\":" + json_string(text) + "}")
               : plain(status, text);
}

std::string list_of(const std::vector<std::string>& texts) {
    std::string list;
    for (const std::string& text : texts) {
        list += (list.empty() ? "" : ",") + text;
    }
    return "[" + list + "]";
}

// The latest of that UUID, or null.
std::shared_ptr<CallRecord> find_present(const CallBoard::Records& records,
                                         const std::string& uuid) {
    const auto found = std::find_if(records.rbegin(), records.rend(), [&uuid](const auto& record) {
        return uuid_text(record->uuid()) == uuid;
    });
    return found == records.rend() ? nullptr : *found;
}

// Of a call that has only just begun, no figures are known.
Levels levels_of(const LiveFrame& frame, std::uint64_t id) {
    const auto row = std::find_if(frame.rows.begin(), frame.rows.end(),
                                  [id](const LiveRow& each) { return each.id == id; });
    return row == frame.rows.end() ? Levels{} : row->level_db;
}

// A picture has a style of its own. It comes with the texts of a call, so nothing in it may run.
constexpr const char* PICTURE_POLICY = "default-src 'none'; style-src 'unsafe-inline'; sandbox";

Response file_response(std::shared_ptr<const OpenFile> file, const std::string& name,
                       const std::string& range_header) {
    Response response;
    response.type = media_type(name);
    response.headers = {{"Accept-Ranges", "bytes"}};
    if (response.type == "image/svg+xml") {
        response.headers.emplace_back("Content-Security-Policy", PICTURE_POLICY);
    }
    const std::uint64_t size = file->size();
    const ByteRange range = read_byte_range(range_header, size);
    if (range.kind == ByteRange::Kind::NOT_SATISFIABLE) {
        response.status = 416;
        response.headers.emplace_back("Content-Range", "bytes */" + std::to_string(size));
        return response;
    }
    const bool is_part = range.kind == ByteRange::Kind::PART;
    response.begin = is_part ? range.begin : 0;
    response.end = is_part ? range.end : size;
    response.file = std::move(file);
    if (is_part) {
        response.status = 206;
        response.headers.emplace_back("Content-Range", "bytes " + std::to_string(response.begin) +
                                                           "-" + std::to_string(response.end - 1) +
                                                           "/" + std::to_string(size));
    }
    return response;
}

}  // namespace

struct Site::Route {
    const char* path;
    bool with_rest;  // Whether anything may follow the path.
    bool is_public;  // Whether it is for everybody.
    const char* methods;
    Response (Site::*answer)(const Request&, Micros) const;
};

// The first that fits is used.
const Site::Route* Site::find_route(const std::string& path) {
    static constexpr std::array<Route, 9> routes = {{
        {"/login", false, true, "GET, HEAD, POST", &Site::log_in},
        {"/logout", false, true, "POST", &Site::log_out},
        {"/page.css", false, true, "GET, HEAD", &Site::page_file},
        {"/icon.svg", false, true, "GET, HEAD", &Site::page_file},
        {"/metrics", false, false, "GET, HEAD", &Site::metrics},
        {"/api/calls", false, false, "GET, HEAD", &Site::calls},
        {"/api/calls/", true, false, "GET, HEAD", &Site::call},
        {"/api/", true, false, "GET, HEAD", nullptr},
        {"/", true, false, "GET, HEAD", &Site::page_file},
    }};
    const auto* const found =
        std::find_if(routes.begin(), routes.end(), [&path](const Route& route) {
            return route.with_rest ? begins_with(path, route.path) : path == route.path;
        });
    return found == routes.end() ? nullptr : &*found;
}

Response Site::answer(const Request& request, Micros now) const {
    const std::string foreign = foreign_site(request, access_.demands_token());
    if (!foreign.empty()) {
        return problem(request, 403, foreign);
    }
    const Route* route = find_route(request.path);
    if (route == nullptr) {
        return plain(404, "not found");
    }
    if (!route->is_public) {
        if (auto refusal = refuse(request, now)) {
            return *refusal;
        }
    }
    const std::string methods = std::string(", ") + route->methods + ",";
    if (methods.find(" " + request.method + ",") == std::string::npos) {
        Response response = problem(request, 405, "this method is not for this path");
        response.headers.emplace_back("Allow", route->methods);
        return response;
    }
    return route->answer == nullptr ? problem(request, 404, "not found")
                                    : (this->*route->answer)(request, now);
}

std::optional<Response> Site::refuse(const Request& request, Micros now) const {
    switch (access_.check(request, now)) {
        case Access::Verdict::ALLOWED:
            return std::nullopt;
        case Access::Verdict::TOO_MANY_WRONG:
            return problem(request, 429, "too many wrong tokens; wait a little");
        case Access::Verdict::DENIED:
            break;
    }
    if (begins_with(request.path, "/api/") || request.path == "/metrics") {
        Response response = problem(request, 401, "the token is missing or wrong");
        response.headers.emplace_back("WWW-Authenticate", "Bearer");
        return response;
    }
    Response response;
    response.status = 303;
    response.headers.emplace_back("Location", "/login");
    return response;
}

std::optional<Response> Site::refuse_live(const Request& request, Micros now) const {
    const std::string foreign = foreign_site(request, access_.demands_token());
    return foreign.empty() ? refuse(request, now) : problem(request, 403, foreign);
}

bool Site::may_stay(const Request& request, Micros now) const {
    return access_.may_stay(request, now);
}

Response Site::page_file(const Request& request, Micros /*now*/) const {
    const std::string name = request.path == "/" ? "page.html" : request.path.substr(1);
    const PageFile* file = find_page_file(name);
    if (file == nullptr) {
        return plain(404, "not found");
    }
    Response response;
    response.type = media_type(name);
    response.body = file->bytes;
    return response;
}

Response Site::log_in(const Request& request, Micros now) const {
    if (request.method == "POST" || !access_.demands_token()) {
        return access_.log_in(request, now);
    }
    Request form = request;
    form.path = "/login.html";
    return page_file(form, now);
}

Response Site::log_out(const Request& request, Micros /*now*/) const {
    return access_.log_out(request);
}

Response Site::calls(const Request& /*request*/, Micros now) const {
    const auto frame = rows_.frame(now);
    std::vector<std::string> calls;
    const CallBoard::Records records = board_.records();
    auto record = records.begin();
    for (const LiveRow& row : frame->rows) {  // Both are in the order of their ids.
        while (record != records.end() && (*record)->id() < row.id) {
            ++record;
        }
        const bool goes_on = record != records.end() && (*record)->id() == row.id;
        calls.push_back(
            heard_text(*row.text, row.level_db,
                       goes_on ? (*record)->latest_samples(SHOWN_SAMPLES) : std::vector<Mark>()));
    }
    std::vector<std::string> finished;
    for (const auto& text : frame->finished) {
        finished.push_back(*text);
    }
    return json(200, "{\"time\":" + json_string(utc_time_ms(wall_time())) + ",\"calls\":" +
                         list_of(calls) + ",\"finished\":" + list_of(finished) + "}");
}

// /api/calls/UUID or /api/calls/UUID/files/NAME
Response Site::call(const Request& request, Micros now) const {
    const std::string rest = request.path.substr(CALLS.size());
    const std::size_t files = rest.find(FILES);
    if (files != std::string::npos) {
        return call_file(request, rest.substr(0, files), rest.substr(files + FILES.size()));
    }
    if (const auto record = find_present(board_.records(), rest)) {
        const CallRecord::Reading reading = record->read();
        const std::string text =
            call_text(facts_text(*record, *reading.facts), *record, reading, now);
        return json(200, heard_text(text, levels_of(*rows_.frame(now), record->id()),
                                    record->latest_samples(SHOWN_SAMPLES)));
    }
    const CallBoard::Finished finished = board_.finished();
    for (auto call = finished.calls.rbegin(); call != finished.calls.rend(); ++call) {
        if (uuid_text((*call)->uuid) == rest) {
            return json(200, finished_text(**call, folder_));
        }
    }
    return problem(request, 404, "no call of this UUID in this run, or it ended too long ago");
}

// Only files that belong to a call which this run has finished.
Response Site::call_file(const Request& request, const std::string& uuid,
                         const std::string& name) const {
    for (const auto& call : board_.finished().calls) {
        const std::vector<std::string> names = file_names_of(*call);
        if (uuid_text(call->uuid) == uuid &&
            std::find(names.begin(), names.end(), name) != names.end()) {
            if (auto file = folder_.open(name)) {
                return file_response(std::move(file), name, request.header("range"));
            }
        }
    }
    return problem(request, 404, "no such file of this call");
}

Response Site::metrics(const Request& /*request*/, Micros /*now*/) const {
    Response response;
    response.type = "text/plain; version=0.0.4; charset=utf-8";
    response.body = metrics_();
    return response;
}

}  // namespace qv::node::web
