#include "view/server.h"

#include <array>
#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <chrono>
#include <exception>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#ifndef _WIN32
#include <fcntl.h>
#endif

#include "view/access.h"
#include "view/outbox.h"
#include "view/page.h"

namespace velmora::view {
namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using net::ip::tcp;
using namespace std::chrono_literals;
using std::chrono::steady_clock;

// No coroutine here throws for what a connection does: its errors are values.
constexpr auto kResult = net::as_tuple(net::use_awaitable);

// What one connection may ask of us.
constexpr std::uint32_t kMostHeader = 8192;
constexpr auto kRequestTime = 5s;
constexpr auto kIdleTime = 20s;   // a viewer that is silent gets a ping at half of it
constexpr auto kWriteTime = 20s;  // one that takes nothing for so long is gone
constexpr std::size_t kMostMessage = 64;
constexpr int kMostKernelBuffer = 256 * 1024;
constexpr std::size_t kMostPlainConnections = 64;  // beside those of viewers
constexpr std::size_t kMostUnread = 64 * 1024;     // of what is refused, read so that the refusal arrives
constexpr auto kUnreadTime = 1s;

// How often the feed is looked into: while somebody looks on, and otherwise.
constexpr auto kWatchedPause = 10ms;
constexpr auto kIdlePause = 100ms;
constexpr auto kEndTime = 500ms;

/// So many at once, and so many in a second.
class Allowance {
  public:
    Allowance(double most, double perSecond) : most_(most), perSecond_(perSecond), left_(most) {}

    bool spend() {
        const auto now = steady_clock::now();
        const double seconds = std::chrono::duration<double>(now - last_).count();
        last_ = now;
        left_ = std::min(most_, left_ + seconds * perSecond_);
        const bool allowed = left_ >= 1;
        left_ -= allowed ? 1 : 0;
        return allowed;
    }

  private:
    const double most_;
    const double perSecond_;
    double left_;
    steady_clock::time_point last_ = steady_clock::now();
};

class Viewer {
  public:
    Viewer(beast::tcp_stream&& stream, net::io_context& io) : socket(std::move(stream)), news(io) {}

    void put(const SharedMessage& message) {
        outbox.put(message);
        news.cancel();
    }
    void close() {
        closed = true;
        beast::get_lowest_layer(socket).close();
        news.cancel();
    }

    websocket::stream<beast::tcp_stream, false> socket;  // samples hardly compress
    Outbox outbox;
    Allowance frames{40, 20};  // pings included
    net::steady_timer news;    // cancelled when there is some
    bool closing = false;      // says goodbye
    bool closed = false;
};
using SharedViewer = std::shared_ptr<Viewer>;

using Request = http::request<http::empty_body>;
using Response = http::response<http::string_body>;

std::string_view view(beast::string_view text) {
    return {text.data(), text.size()};
}

/// The files of the page name nothing outside, and nobody else's page may show or read them.
void addPolicy(http::fields& fields) {
    fields.set(http::field::cache_control, "no-store");
    fields.set("Content-Security-Policy",
               "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
               "base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
    fields.set("Cross-Origin-Opener-Policy", "same-origin");
    fields.set("Cross-Origin-Resource-Policy", "same-origin");
    fields.set("Referrer-Policy", "no-referrer");
    fields.set("X-Content-Type-Options", "nosniff");
}

Response text(http::status status, const std::string& body) {
    Response response{status, 11};
    response.set(http::field::content_type, "text/plain; charset=utf-8");
    response.body() = body + "\n";
    return response;
}

/// What is wrong with a request for a WebSocket; nothing when it can be granted.
std::optional<Response> handshakeProblem(const Request& request) {
    constexpr std::string_view kWebSocketVersion = "13";
    constexpr std::size_t kKeySize = 24;  // 16 bytes in base64
    if (view(request[http::field::sec_websocket_version]) != kWebSocketVersion) {
        Response response = text(http::status::upgrade_required, "WebSocket version 13 only.");
        response.set(http::field::sec_websocket_version, kWebSocketVersion);
        return response;
    }
    if (request[http::field::sec_websocket_key].size() != kKeySize) {
        return text(http::status::bad_request, "That is no key of a WebSocket.");
    }
    return std::nullopt;
}

class BeastServer final : public Server {
  public:
    BeastServer(const ServerOptions& options, Feed& feed)
        : options_(options),
          feed_(feed),
          acceptor_(bound(options)),
          open_(!acceptor_.local_endpoint().address().is_loopback()),
          access_(acceptor_.local_endpoint().port()) {
        address_ = addressWithToken();
        acceptor_.listen(net::socket_base::max_listen_connections);
        spawn(acceptAll());
        spawn(pump());
        thread_ = std::thread([this] { run(); });
    }

    ~BeastServer() override {
        net::post(io_, [this] {
            ending_ = true;
            beast::error_code ignored;
            acceptor_.close(ignored);
            pause_.cancel();
            end_.expires_after(2 * kEndTime);  // also when memory was short for the pump
            end_.async_wait([this](const beast::error_code&) { io_.stop(); });
        });
        thread_.join();
        viewers_.clear();  // before the context, which owns what they have
    }

    const std::string& address() const override { return address_; }
    bool open() const override { return open_; }

  private:
    tcp::acceptor bound(const ServerOptions& options) {
        beast::error_code error;
        const auto address = net::ip::make_address(options.listen, error);
        if (error) {
            throw std::runtime_error(options.listen + " is not an address such as 127.0.0.1 or 0.0.0.0");
        }
        tcp::acceptor acceptor(io_);
        const tcp::endpoint endpoint(address, options.port);
        acceptor.open(endpoint.protocol(), error);
        if (!error) {
#ifdef _WIN32
            // What the other option is for happens here by itself, and it would let another program take the port.
            const int yes = 1;
            ::setsockopt(acceptor.native_handle(), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&yes),
                         sizeof yes);
#else
            ::fcntl(acceptor.native_handle(), F_SETFD, FD_CLOEXEC);  // a browser that outlives us would keep it open
            acceptor.set_option(net::socket_base::reuse_address(true), error);
#endif
        }
        if (!error) {
            acceptor.bind(endpoint, error);
        }
        if (error) {
            throw std::runtime_error("nothing can be served at " + options.listen + " port " +
                                     std::to_string(options.port) + ": " + error.message() +
                                     "; choose another with --port-http or --listen");
        }
        return acceptor;
    }

    std::string addressWithToken() const {
        auto endpoint = acceptor_.local_endpoint();
        if (endpoint.address().is_unspecified()) {
            endpoint.address(endpoint.address().is_v6() ? net::ip::address(net::ip::address_v6::loopback())
                                                        : net::ip::address(net::ip::address_v4::loopback()));
        }
        return "http://" + hostText(endpoint.address()) + ":" + std::to_string(endpoint.port()) +
               "/?token=" + access_.token();
    }

    static std::string hostText(net::ip::address address) {
        if (address.is_v6() && address.to_v6().is_v4_mapped()) {
            address = net::ip::make_address_v4(net::ip::v4_mapped, address.to_v6());
        }
        return address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
    }

    void run() {
        for (;;) {
            try {
                io_.run();
                return;
            } catch (const std::exception&) {
                // Of one handler, out of memory mostly: its connection is gone, and the others go on.
            }
        }
    }

    void spawn(net::awaitable<void> task) {
        net::co_spawn(io_, std::move(task), net::detached);
    }

    net::awaitable<void> acceptAll() {
        while (acceptor_.is_open()) {
            auto [error, socket] = co_await acceptor_.async_accept(kResult);
            if (error) {
                if (acceptor_.is_open()) {  // such as too many open files
                    net::steady_timer timer(io_, kIdlePause);
                    co_await timer.async_wait(kResult);
                }
                continue;
            }
            admit(std::move(socket));
        }
    }

    void admit(tcp::socket socket) noexcept {
        try {
            if (plain_ >= kMostPlainConnections) {
                refuse(socket);
            } else {
                spawn(serve(beast::tcp_stream(std::move(socket))));
            }
        } catch (const std::bad_alloc&) {
            // This one is gone, and others are accepted.
        }
    }

    /// Without waiting for what it wants: nothing of it is kept.
    static void refuse(tcp::socket& socket) {
        Response response = text(http::status::service_unavailable, "Too many connections.");
        response.set(http::field::retry_after, "5");
        response.keep_alive(false);
        response.prepare_payload();
        addPolicy(response);
        beast::error_code ignored;
        socket.non_blocking(true, ignored);
        std::array<char, kMostHeader> unread;
        socket.read_some(net::buffer(unread), ignored);  // or the answer may be lost with it
        http::write(socket, response, ignored);
        socket.shutdown(tcp::socket::shutdown_send, ignored);
    }

    /// Counts a connection that is not a viewer yet.
    struct Plain {
        explicit Plain(std::size_t& count) : count_(count) { ++count_; }
        ~Plain() { leave(); }
        Plain(const Plain&) = delete;
        Plain& operator=(const Plain&) = delete;
        void leave() { count_ -= std::exchange(here_, 0); }

      private:
        std::size_t& count_;
        std::size_t here_ = 1;
    };

    net::awaitable<void> serve(beast::tcp_stream stream) {
        Plain plain(plain_);
        stream.socket().set_option(tcp::no_delay(true), ignored_);
        beast::flat_buffer buffer(kMostHeader + 1);
        Allowance requests{40, 20};  // the page takes six
        for (bool more = true; more;) {
            http::request_parser<http::empty_body> parser;
            parser.header_limit(kMostHeader);
            stream.expires_after(kRequestTime);
            const auto [error, read] = co_await http::async_read(stream, buffer, parser, kResult);
            Response response;
            if (error == http::error::end_of_stream || error == net::error::operation_aborted) {
                break;
            }
            if (error) {
                const auto refusal = refusalOf(error);
                if (!refusal) {
                    break;
                }
                response = text(*refusal, std::string(view(http::obsolete_reason(*refusal))));
                response.keep_alive(false);
            } else {
                const Request request = parser.release();
                response = requests.spend() ? answer(request, stream.socket())
                                            : text(http::status::too_many_requests, "Not so fast.");
                if (response.result() == http::status::switching_protocols) {
                    plain.leave();
                    co_await look(std::move(stream), request);
                    co_return;
                }
                response.keep_alive(request.keep_alive() && response.result_int() < 400);
                if (request.method() == http::verb::head) {
                    response.content_length(response.body().size());
                    response.body().clear();
                }
            }
            more = response.keep_alive();
            if (!response.has_content_length()) {
                response.prepare_payload();
            }
            addPolicy(response);
            stream.expires_after(kRequestTime);
            const auto [failed, written] = co_await http::async_write(stream, response, kResult);
            more = more && !failed;
        }
        co_await close(stream);
    }

    /// A connection that is closed with something unread in it is reset, and its last answer may not be seen.
    net::awaitable<void> close(beast::tcp_stream& stream) {
        stream.socket().shutdown(tcp::socket::shutdown_send, ignored_);
        stream.expires_after(kUnreadTime);
        std::array<char, 4096> unread;
        for (std::size_t size = 0; size < kMostUnread;) {
            const auto [error, more] = co_await stream.async_read_some(net::buffer(unread), kResult);
            if (error) {
                break;
            }
            size += more;
        }
    }

    /// What is said to a request that cannot be read; nothing when nobody would hear it.
    static std::optional<http::status> refusalOf(const beast::error_code& error) {
        if (error == beast::error::timeout) {
            return std::nullopt;  // half a request
        }
        if (error == http::error::header_limit || error == http::error::buffer_overflow) {
            return http::status::request_header_fields_too_large;
        }
        if (error == http::error::unexpected_body || error == http::error::body_limit) {
            return http::status::payload_too_large;
        }
        if (error.category() == http::make_error_code(http::error::bad_target).category()) {
            return http::status::bad_request;
        }
        return std::nullopt;  // of the connection
    }

    Response answer(const Request& request, const tcp::socket& socket) {
        beast::error_code error;
        const tcp::endpoint here = socket.local_endpoint(error);
        const std::string_view host = view(request[http::field::host]);
        if (error || !hostIsOurs(host, hostText(here.address()), here.address().is_loopback(), here.port())) {
            return text(http::status::forbidden, "velmora is not at that address: open the one that it has printed.");
        }
        if (!originIsOurs(view(request[http::field::origin]), host)) {
            return text(http::status::forbidden, "Pages of others get nothing here.");
        }
        if (request.method() != http::verb::get && request.method() != http::verb::head) {
            return text(http::status::method_not_allowed, "GET and HEAD only.");
        }
        const bool known = access_.admits(view(request[http::field::cookie]));
        return websocket::is_upgrade(request) ? answerStream(request, known) : answerPage(request, known);
    }

    Response answerPage(const Request& request, bool known) {
        const std::string_view target = view(request.target());
        if (const auto token = tokenOf(target, "/"); token && request.method() == http::verb::get) {
            const auto session = exchange(*token);
            if (session || known) {
                Response response{http::status::see_other, 11};
                response.set(http::field::location, "/");
                if (session) {
                    response.set(http::field::set_cookie, access_.cookieField(*session));
                }
                return response;
            }
        }
        if (!known) {
            return stranger();
        }
        for (const PageFile& file : pageFiles()) {
            if (file.path == target) {
                Response response{http::status::ok, 11};
                response.set(http::field::content_type, std::string(file.type) + "; charset=utf-8");
                response.body() = file.content;
                return response;
            }
        }
        return text(http::status::not_found, "There is nothing here.");
    }

    /// Programs that are no browsers may bring the token along, and need no cookie then.
    Response answerStream(const Request& request, bool known) {
        constexpr std::string_view kPath = "/stream";
        const std::string_view target = view(request.target());
        const auto token = tokenOf(target, kPath);
        if (!known && !token) {
            return stranger();
        }
        if (!token && target != kPath) {
            return text(http::status::not_found, "There is no such stream.");
        }
        // All that can be refused is, before the token is used up.
        if (auto problem = handshakeProblem(request)) {
            return *std::move(problem);
        }
        if (viewers_.size() >= options_.clients) {
            return text(http::status::service_unavailable,
                        "As many look on as may (--clients); close another page first.");
        }
        if (!known && !exchange(*token)) {
            return stranger();
        }
        return {http::status::switching_protocols, 11};
    }

    std::optional<std::string> exchange(std::string_view token) {
        auto session = access_.exchange(token);
        if (session) {
            feed_.notify(addressWithToken());
        }
        return session;
    }

    static Response stranger() {
        return text(http::status::forbidden,
                    "This takes the whole address that velmora has printed; each is good for one browser, once.");
    }

    /// A viewer counts from its request to its end, whatever that is.
    class Seat {
      public:
        Seat(BeastServer& server, SharedViewer viewer) : server_(server), viewer_(std::move(viewer)) {
            server_.viewers_.insert(viewer_);
            server_.feed_.setWatched(true);
        }
        ~Seat() {
            viewer_->close();
            server_.viewers_.erase(viewer_);
            server_.feed_.setWatched(!server_.viewers_.empty());
        }
        Seat(const Seat&) = delete;
        Seat& operator=(const Seat&) = delete;

      private:
        BeastServer& server_;
        const SharedViewer viewer_;
    };

    net::awaitable<void> look(beast::tcp_stream stream, const Request& request) {
        stream.expires_never();
        stream.socket().set_option(net::socket_base::send_buffer_size(kMostKernelBuffer), ignored_);
        const auto viewer = std::make_shared<Viewer>(std::move(stream), io_);
        for (const SharedMessage& message : {hello_, status_, trouble_, ended_}) {
            if (message) {
                viewer->put(message);
            }
        }
        const Seat seat(*this, viewer);  // what comes while it shakes hands waits behind hello
        viewer->socket.set_option(websocket::stream_base::decorator([](http::fields& fields) { addPolicy(fields); }));
        viewer->socket.set_option(websocket::stream_base::timeout{kRequestTime, kIdleTime, true});
        viewer->socket.read_message_max(kMostMessage);
        viewer->socket.binary(true);
        viewer->socket.auto_fragment(false);
        viewer->socket.control_callback([viewer = viewer.get()](websocket::frame_type, beast::string_view) {
            if (!viewer->frames.spend()) {
                viewer->close();
            }
        });
        const auto [error] = co_await viewer->socket.async_accept(request, kResult);
        if (!error) {
            spawn(write(viewer));
            co_await read(viewer);
        }
    }

    net::awaitable<void> read(SharedViewer viewer) {
        beast::flat_buffer buffer(kMostMessage);
        while (!viewer->closed) {
            buffer.clear();
            const auto [error, size] = co_await viewer->socket.async_read(buffer, kResult);
            if (error) {
                co_return;
            }
            const auto* const bytes = static_cast<const std::uint8_t*>(buffer.cdata().data());
            const auto mark = parseMarkRequest({bytes, buffer.size()});
            if (!viewer->frames.spend() || !mark || !viewer->socket.got_binary()) {
                const bool wrong = !mark || !viewer->socket.got_binary();
                co_await leave(viewer,
                               wrong ? websocket::close_code::bad_payload : websocket::close_code::policy_error);
                co_return;
            }
            if (marks_.spend()) {
                feed_.requestMark(*mark);
            }
        }
    }

    static net::awaitable<void> leave(SharedViewer viewer, websocket::close_code code) {
        if (!std::exchange(viewer->closing, true)) {
            co_await viewer->socket.async_close(code, kResult);
        }
    }

    net::awaitable<void> write(SharedViewer viewer) {
        while (!viewer->closed) {
            if (viewer->outbox.empty()) {
                if (last_) {
                    co_await leave(viewer, websocket::close_code::going_away);
                    break;
                }
                viewer->news.expires_after(kIdleTime);
                co_await viewer->news.async_wait(kResult);
                continue;
            }
            const SharedMessage message = viewer->outbox.take();
            net::steady_timer limit(io_, kWriteTime);
            limit.async_wait([viewer](const beast::error_code& error) {
                if (!error) {
                    viewer->close();
                }
            });
            const auto [error, size] = co_await viewer->socket.async_write(net::buffer(message->bytes), kResult);
            if (error) {
                break;
            }
        }
        viewer->close();
    }

    /// From the feed to all viewers, until the server ends.
    net::awaitable<void> pump() {
        while (!ending_) {
            tryDispatch();
            pause_.expires_after(viewers_.empty() ? kIdlePause : kWatchedPause);
            co_await pause_.async_wait(kResult);
        }
        tryDispatch();
        last_ = true;
        for (const SharedViewer& viewer : viewers_) {
            viewer->news.cancel();
        }
        const auto deadline = steady_clock::now() + kEndTime;
        while (!viewers_.empty() && steady_clock::now() < deadline) {
            pause_.expires_after(kWatchedPause);
            co_await pause_.async_wait(kResult);
        }
        io_.stop();
    }

    void tryDispatch() noexcept {
        try {
            dispatch();
        } catch (const std::bad_alloc&) {
            // They see a gap in their data, and the next message finds them again.
        }
    }

    void dispatch() {
        while (const SharedMessage message = feed_.next()) {
            keepForLatecomers(message);
            for (const SharedViewer& viewer : viewers_) {
                viewer->put(message);
            }
        }
    }

    void keepForLatecomers(const SharedMessage& message) {
        if (message->kind == Kind::Hello) {
            hello_ = message;
        } else if (message->kind == Kind::Status) {
            status_ = message;
        } else if (message->kind == Kind::Ended) {
            ended_ = message;
        } else if (message->kind == Kind::Event) {
            if (const std::uint8_t code = eventCode(*message);
                code == VELMORA_EVENT_RESTARTED || code == VELMORA_EVENT_GONE) {
                trouble_ = message;
            } else if (code == VELMORA_EVENT_CONNECTED) {
                trouble_ = nullptr;
            }
        }
    }

    const ServerOptions options_;
    Feed& feed_;
    // Before the context: what it destroys at its end leaves them.
    std::size_t plain_ = 0;
    std::set<SharedViewer> viewers_;
    net::io_context io_{1};
    tcp::acceptor acceptor_;
    const bool open_;
    std::string address_;
    std::thread thread_;

    // The thread's own.
    Access access_;
    net::steady_timer pause_{io_};
    net::steady_timer end_{io_};
    Allowance marks_{10, 5};  // of all viewers together; nobody makes more by hand
    SharedMessage hello_;
    SharedMessage status_;
    SharedMessage trouble_;  // of the dongle, until a headset is connected again
    SharedMessage ended_;
    bool ending_ = false;
    bool last_ = false;  // nothing more comes
    beast::error_code ignored_;
};

}  // namespace

std::unique_ptr<Server> Server::start(const ServerOptions& options, Feed& feed) {
    return std::make_unique<BeastServer>(options, feed);
}

}  // namespace velmora::view
