#include "control_server.h"

#include <httplib.h>
#include <sys/random.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "control_page.h"
#include "lumets_common/pixel_ops.h"
#include "lumets_common/png.h"
#include "lumets_common/scaled_composite.h"
#include "scene_file.h"

namespace lumets::playback {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

std::string RandomToken() {
    uint8_t bytes[16] = {};
    size_t got = 0;
    while (got < sizeof bytes) {
        const ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
        if (n > 0) {
            got += static_cast<size_t>(n);
        }
    }
    static const char kHex[] = "0123456789abcdef";
    std::string token;
    for (const uint8_t b : bytes) {
        token += kHex[b >> 4];
        token += kHex[b & 15];
    }
    return token;
}

// Compares without stopping at the first difference, so that the time taken
// says nothing about how much of a guess was right.
bool SameSecret(const std::string& a, const std::string& b) {
    uint8_t differ = a.size() == b.size() ? 0 : 1;
    for (size_t i = 0; i < a.size(); ++i) {
        differ |= static_cast<uint8_t>(a[i] ^ b[i % (b.empty() ? 1 : b.size())]);
    }
    return differ == 0 && !b.empty();
}

void Reply(httplib::Response& res, int status, const json& body) {
    res.status = status;
    res.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

std::string EventText(const char* type, const json& data) {
    return std::string("event: ") + type +
           "\ndata: " + data.dump(-1, ' ', false, json::error_handler_t::replace) + "\n\n";
}

// The host's frame, row after row from the top, in its own layout: what the
// preview encodes later on a server thread.
struct Preview {
    std::vector<uint8_t> pixels;
    int32_t width = 0;
    int32_t height = 0;
    int stride = 0;
    AVPixelFormat format = AV_PIX_FMT_BGR24;
};

std::shared_ptr<Preview> CopyFrame(const lumets_frame& frame) {
    static constexpr AVPixelFormat kFormats[] = {AV_PIX_FMT_BGR24, AV_PIX_FMT_RGB24,
                                                 AV_PIX_FMT_BGR0,  AV_PIX_FMT_BGR0,
                                                 AV_PIX_FMT_RGB0,  AV_PIX_FMT_RGB0};
    const PictureView view = FrameView(&frame);
    if (view.data == nullptr) {
        return nullptr;
    }
    auto preview = std::make_shared<Preview>();
    preview->width = view.width;
    preview->height = view.height;
    preview->format = kFormats[frame.format - LUMETS_FORMAT_BGR24];
    const size_t row = static_cast<size_t>(view.width) * static_cast<size_t>(view.bitsPerPixel / 8);
    preview->stride = static_cast<int>(row);
    preview->pixels.resize(row * static_cast<size_t>(view.height));
    for (int32_t y = 0; y < view.height; ++y) {
        // The view's memory rows run bottom-up unless it is top-down.
        const int32_t m = view.topDown ? y : view.height - 1 - y;
        std::memcpy(preview->pixels.data() + row * static_cast<size_t>(y),
                    view.data + view.strideBytes * static_cast<size_t>(m), row);
    }
    return preview;
}

}  // namespace

struct CControlServer::Impl {
    struct Batch {
        json results = json::array();
        size_t remaining = 0;
        uint64_t frame = 0;
        bool done = false;
    };
    struct Pending {
        Action action;
        json source;
        std::shared_ptr<Batch> batch;
        size_t index = 0;
    };
    struct Client {
        std::deque<std::string> backlog;
        bool dropped = false;
        Clock::time_point lastWrite = Clock::now();
    };

    ControlOptions options;
    std::string token;
    httplib::Server server;
    std::thread thread;
    int port = -1;

    std::mutex lock;
    std::condition_variable changed;
    bool stopping = false;
    std::deque<Pending> queue;
    std::string state = R"({"frame": 0, "subtitles": [], "banners": {}})";
    std::shared_ptr<const Preview> preview;
    Clock::time_point previewWanted{};
    std::vector<std::shared_ptr<Client>> clients;
    Clock::time_point second = Clock::now();
    size_t eventsThisSecond = 0;
    size_t eventsDropped = 0;
    CPlayingWatch watch;  // what played at the last frame published

    bool Loopback() const {
        return options.address == "127.0.0.1" || options.address == "::1" ||
               options.address == "localhost";
    }

    // Under lock: a new second of the event rate, and the count of the events
    // dropped in the last one told to every client. The streams call it as
    // they wait, so the count goes out even when no event follows.
    void Tick() {
        const Clock::time_point now = Clock::now();
        if (now - second < std::chrono::seconds(1)) {
            return;
        }
        second = now;
        eventsThisSecond = 0;
        if (eventsDropped > 0) {
            const std::string notice = EventText("dropped", {{"count", eventsDropped}});
            eventsDropped = 0;
            for (const auto& client : clients) {
                client->backlog.push_back(notice);
            }
            changed.notify_all();
        }
    }

    // Under lock: one event to every client, within the rate.
    void Emit(const char* type, const json& data) {
        Tick();
        if (++eventsThisSecond > kLimits.eventsPerSecond) {
            ++eventsDropped;
            return;
        }
        const std::string text = EventText(type, data);
        for (const auto& client : clients) {
            if (client->backlog.size() >= kLimits.eventBacklog) {
                client->dropped = true;  // a client that does not read is let go
            } else {
                client->backlog.push_back(text);
            }
        }
        changed.notify_all();
    }

    // Why the request may not go on (a status and a reason), or 0.
    std::pair<int, const char*> Refusal(const httplib::Request& req) const {
        const std::string host = req.get_header_value("Host");
        const std::string at = ":" + std::to_string(port);
        if (Loopback() && host != "127.0.0.1" + at && host != "localhost" + at &&
            host != "[::1]" + at) {
            return {403, "this server answers for its own address only"};
        }
        const std::string origin = req.get_header_value("Origin");
        if ((!origin.empty() && origin != "http://" + host) ||
            req.get_header_value("Sec-Fetch-Site") == "cross-site") {
            return {403, "requests from other sites are refused"};
        }
        // Refused before the body is read: a declared body past the bound,
        // and chunked bodies, which the server would read without one.
        if (req.has_header("Transfer-Encoding")) {
            return {411, "send a body with its Content-Length"};
        }
        const std::string length = req.get_header_value("Content-Length");
        if (!length.empty() &&
            (length.size() > 12 || !std::all_of(length.begin(), length.end(), ::isdigit) ||
             std::stoull(length) > kLimits.bodyBytes)) {
            return {413, "a request body is at most 1 MiB"};
        }
        if (req.method == "GET" && req.path == "/") {
            return {0, nullptr};  // the page itself
        }
        const std::string bearer = req.get_header_value("Authorization");
        const std::string cookies = req.get_header_value("Cookie");
        const size_t at_cookie = cookies.find("lumets_token=");
        std::string cookie;
        if (at_cookie != std::string::npos) {
            cookie = cookies.substr(at_cookie + 13, cookies.find(';', at_cookie) - at_cookie - 13);
        }
        if (!SameSecret("Bearer " + token, bearer) && !SameSecret(token, cookie)) {
            return {401,
                    "a token is needed: open the address lumets printed once, or send "
                    "\"Authorization: Bearer TOKEN\""};
        }
        return {0, nullptr};
    }

    void Page(const httplib::Request& req, httplib::Response& res) {
        if (req.has_param("token")) {
            if (!SameSecret(token, req.get_param_value("token"))) {
                Reply(res, 401, {{"error", "wrong token"}});
                return;
            }
            // The token goes into a cookie only this origin sends, and out
            // of the address bar and the history.
            // Other parameters go along, if plain words: nothing a request
            // brings may reach a header unchecked.
            const auto plain = [](const std::string& text) {
                return text.size() <= 64 &&
                       std::all_of(text.begin(), text.end(), [](unsigned char c) {
                           return std::isalnum(c) != 0 || c == '_' || c == '-';
                       });
            };
            std::string rest;
            for (const auto& [key, value] : req.params) {
                if (key != "token" && plain(key) && plain(value)) {
                    rest += (rest.empty() ? "?" : "&") + key + "=" + value;
                }
            }
            res.set_header("Set-Cookie",
                           "lumets_token=" + token + "; Path=/; HttpOnly; SameSite=Strict");
            res.set_redirect("/" + rest, 303);
            return;
        }
        res.set_header("Content-Security-Policy",
                       "default-src 'self'; img-src 'self' blob: data:; style-src 'unsafe-inline'; "
                       "script-src 'unsafe-inline'; connect-src 'self'; frame-ancestors 'none'");
        res.set_content(kControlPage, "text/html; charset=utf-8");
    }

    void Actions(const httplib::Request& req, httplib::Response& res) {
        if (req.get_header_value("Content-Type").rfind("application/json", 0) != 0) {
            Reply(res, 415, {{"error", "send the actions as application/json"}});
            return;
        }
        std::vector<ReadOutcome> outcomes;
        try {
            outcomes = ParseActions(req.body, "request", options.baseDir, WhyNotPlayable,
                                    kLimits.bodyBytes);
        } catch (const SceneError& error) {
            Reply(res, 400, {{"applied", false}, {"error", error.what()}});
            return;
        }
        if (outcomes.size() > kLimits.actionsPerRequest) {
            Reply(res, 413,
                  {{"error", "at most " + std::to_string(kLimits.actionsPerRequest) +
                                 " actions a request"}});
            return;
        }
        const json body = json::parse(req.body, nullptr, false);
        auto batch = std::make_shared<Batch>();
        bool readable = true;
        for (const ReadOutcome& outcome : outcomes) {
            readable = readable && outcome.action.has_value();
            batch->results.push_back(outcome.action
                                         ? json{{"ok", true}}
                                         : json{{"ok", false}, {"error", outcome.error}});
        }
        if (!readable) {
            Reply(res, 400, {{"applied", false}, {"results", batch->results}});
            return;
        }
        std::unique_lock<std::mutex> lk(lock);
        if (queue.size() + outcomes.size() > kLimits.queuedActions) {
            lk.unlock();
            res.set_header("Retry-After", "1");
            Reply(res, 429, {{"error", "too many actions wait for a frame; try again"}});
            return;
        }
        batch->remaining = outcomes.size();
        batch->done = outcomes.empty();
        for (size_t i = 0; i < outcomes.size(); ++i) {
            queue.push_back(Pending{std::move(*outcomes[i].action),
                                    body.is_array() ? body[i] : body, batch, i});
        }
        changed.wait_for(lk, std::chrono::seconds(kLimits.timeoutSeconds),
                         [&] { return batch->done || stopping; });
        if (!batch->done) {
            Reply(res, 202, {{"applied", false}, {"queued", true}});
            return;
        }
        Reply(res, 200, {{"applied", true}, {"frame", batch->frame}, {"results", batch->results}});
    }

    void Frame(httplib::Response& res) {
        std::shared_ptr<const Preview> shown;
        {
            std::unique_lock<std::mutex> lk(lock);
            previewWanted = Clock::now();
            // The frame loop copies frames only while someone watches: the
            // first request waits for the next frame.
            changed.wait_for(lk, std::chrono::seconds(1), [&] { return preview || stopping; });
            shown = preview;
        }
        std::vector<uint8_t> png;
        std::string why;
        if (!shown || !EncodePng(shown->pixels.data(), shown->stride, shown->format, shown->width,
                                 shown->height, &png, &why)) {
            res.set_header("Retry-After", "1");
            Reply(res, 503, {{"error", shown ? why : "no frame yet"}});
            return;
        }
        res.set_content(std::string(png.begin(), png.end()), "image/png");
    }

    void Events(httplib::Response& res) {
        auto client = std::make_shared<Client>();
        {
            const std::lock_guard<std::mutex> lk(lock);
            if (clients.size() >= kLimits.eventClients) {
                Reply(res, 429, {{"error", "too many event streams"}});
                return;
            }
            clients.push_back(client);
        }
        res.set_header("Cache-Control", "no-store");
        res.set_chunked_content_provider(
            "text/event-stream",
            [this, client](size_t, httplib::DataSink& sink) {
                std::string out;
                {
                    std::unique_lock<std::mutex> lk(lock);
                    Tick();
                    changed.wait_for(lk, std::chrono::milliseconds(500), [&] {
                        return stopping || client->dropped || !client->backlog.empty();
                    });
                    if (stopping || client->dropped) {
                        return false;
                    }
                    for (; !client->backlog.empty(); client->backlog.pop_front()) {
                        out += client->backlog.front();
                    }
                }
                const Clock::time_point now = Clock::now();
                if (out.empty() && now - client->lastWrite >= std::chrono::seconds(5)) {
                    out = ": keep-alive\n\n";
                }
                if (out.empty()) {
                    return true;
                }
                client->lastWrite = now;
                // A reader that has stopped reading fails this write after
                // the socket's write timeout, which ends the stream.
                return sink.write(out.data(), out.size());
            },
            [this, client](bool) {
                const std::lock_guard<std::mutex> lk(lock);
                std::erase(clients, client);
            });
    }

    // A handler's body; nothing it throws reaches the server's threads.
    template <typename Body>
    httplib::Server::Handler Guarded(Body body) {
        return [body](const httplib::Request& req, httplib::Response& res) {
            try {
                body(req, res);
            } catch (const std::exception& error) {
                Reply(res, 500, {{"error", error.what()}});
            } catch (...) {
                Reply(res, 500, {{"error", "an unknown failure"}});
            }
        };
    }

    void Route() {
        server.new_task_queue = [] { return new httplib::ThreadPool(kLimits.eventClients + 8); };
        server.set_payload_max_length(kLimits.bodyBytes);
        // Replies leave at once, not when the client's next request comes.
        server.set_tcp_nodelay(true);
        server.set_read_timeout(kLimits.timeoutSeconds, 0);
        server.set_write_timeout(kLimits.timeoutSeconds, 0);
        // One request a connection: a refused body is then never read as the
        // next request, and its connection closes at once. Connections to
        // this machine cost next to nothing to open.
        server.set_keep_alive_max_count(1);
        server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
            res.set_header("X-Content-Type-Options", "nosniff");
            res.set_header("X-Frame-Options", "DENY");
            res.set_header("Referrer-Policy", "no-referrer");
            res.set_header("Cache-Control", "no-store");
            const auto [status, why] = Refusal(req);
            if (status == 0) {
                return httplib::Server::HandlerResponse::Unhandled;
            }
            Reply(res, status, {{"error", why}});
            return httplib::Server::HandlerResponse::Handled;
        });
        server.Get("/", Guarded([this](const auto& req, auto& res) { Page(req, res); }));
        server.Post("/actions", Guarded([this](const auto& req, auto& res) { Actions(req, res); }));
        server.Get("/state", Guarded([this](const auto&, auto& res) {
                       const std::lock_guard<std::mutex> lk(lock);
                       res.set_content(state, "application/json");
                   }));
        server.Get("/frame.png", Guarded([this](const auto&, auto& res) { Frame(res); }));
        server.Get("/events", Guarded([this](const auto&, auto& res) { Events(res); }));
    }
};

CControlServer::CControlServer(ControlOptions options) : m_impl(std::make_unique<Impl>()) {
    m_impl->options = std::move(options);
    m_impl->token = m_impl->options.token.empty() ? RandomToken() : m_impl->options.token;
    m_impl->Route();
}

CControlServer::~CControlServer() {
    Stop();
}

bool CControlServer::Start(std::string* error) {
    Impl& s = *m_impl;
    const ControlOptions& o = s.options;
    s.port = o.port == 0 ? s.server.bind_to_any_port(o.address)
                         : (s.server.bind_to_port(o.address, o.port) ? o.port : -1);
    if (s.port <= 0) {
        *error = "cannot listen on " + o.address + ":" + std::to_string(o.port);
        return false;
    }
    try {
        s.thread = std::thread([&s] { s.server.listen_after_bind(); });
    } catch (const std::system_error& e) {
        *error = std::string("cannot start the server's thread: ") + e.what();
        return false;
    }
    return true;
}

void CControlServer::Stop() {
    Impl& s = *m_impl;
    {
        const std::lock_guard<std::mutex> lk(s.lock);
        s.stopping = true;
        s.changed.notify_all();
    }
    s.server.stop();
    if (s.thread.joinable()) {
        s.thread.join();
    }
}

std::string CControlServer::Url() const {
    const std::string& address = m_impl->options.address;
    const bool v6 = address.find(':') != std::string::npos;
    return "http://" + (v6 ? "[" + address + "]" : address) + ":" + std::to_string(m_impl->port) +
           "/";
}

std::string CControlServer::PageUrl() const {
    return Url() + "?token=" + m_impl->token;
}

void CControlServer::TakeActions(CScenePlayer& player, uint64_t frame) {
    Impl& s = *m_impl;
    std::deque<Impl::Pending> taken;
    {
        const std::lock_guard<std::mutex> lk(s.lock);
        taken.swap(s.queue);
    }
    if (taken.empty()) {
        return;
    }
    std::vector<json> events;
    for (Impl::Pending& p : taken) {
        const std::string why = player.Apply(p.action);
        json result =
            why.empty() ? json{{"ok", true}} : json{{"ok", false}, {"error", "action: " + why}};
        json event = result;
        event["frame"] = frame;
        event["action"] = std::move(p.source);
        events.push_back(std::move(event));
        p.batch->results[p.index] = std::move(result);
    }
    const std::lock_guard<std::mutex> lk(s.lock);
    for (Impl::Pending& p : taken) {
        p.batch->frame = frame;
        p.batch->done = --p.batch->remaining == 0;
    }
    for (const json& event : events) {
        s.Emit("action", event);
    }
    s.changed.notify_all();
}

bool CControlServer::PreviewWanted() const {
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> lk(m_impl->lock);
    return now - m_impl->previewWanted < std::chrono::seconds(3);
}

void CControlServer::Publish(CScenePlayer& player, uint64_t frame, const lumets_frame& drawn) {
    Impl& s = *m_impl;
    const std::vector<PlayingSubtitle> playing = player.Playing();
    json state = json::parse(player.StateJson(playing), nullptr, false);
    if (!state.is_object()) {
        return;
    }
    const Scene& scene = player.GetScene();
    const float scale = static_cast<float>(drawn.width) / static_cast<float>(scene.width);
    for (json& subtitle : state["subtitles"]) {
        for (json& side : subtitle["rect"]) {
            side = ScaleCoordinate(side.get<int32_t>(), scale);
        }
    }
    state["frame"] = frame + 1;
    state["frame_size"] = {drawn.width, drawn.height};
    state["scene_size"] = {scene.width, scene.height};
    state["scale"] = scale;
    std::shared_ptr<Preview> copy;
    if (PreviewWanted()) {
        copy = CopyFrame(drawn);
    }
    const std::lock_guard<std::mutex> lk(s.lock);
    s.state = state.dump(-1, ' ', false, json::error_handler_t::replace);
    if (copy) {
        s.preview = std::move(copy);
    }
    for (const SubtitleChange& change : s.watch.Update(playing)) {
        s.Emit("subtitle", {{"frame", frame},
                            {"id", change.id},
                            {"group", change.group},
                            {"state", change.started ? "start" : "end"}});
    }
    s.changed.notify_all();
}

}  // namespace lumets::playback
