/*
 * The console's server on Boost.Beast (header-only, Debian's libboost-dev).
 * One thread runs one io_context: every handler runs on it, so the sessions
 * and the client count need no lock.
 */
#include "serve.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "web_files.h"

namespace sfcloud {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

constexpr std::size_t REQUEST_LIMIT = 16384;   /* bytes of an HTTP request: the page sends only GETs */
constexpr std::size_t BROKER_CHUNK = 16384;    /* bytes read from the broker per frame sent */
constexpr auto HTTP_IDLE = std::chrono::seconds(30);

struct Shared {
    ServeSettings settings;
    int relays = 0; /* WebSocket clients now */
};

void log_line(const std::string &text)
{
    std::fprintf(stderr, "sfcloud serve: %s\n", text.c_str());
    std::fflush(stderr);
}

std::string peer_of(const beast::tcp_stream &stream)
{
    beast::error_code ec;
    const tcp::endpoint ep = stream.socket().remote_endpoint(ec);
    return ec ? std::string("?") : ep.address().to_string() + ":" + std::to_string(ep.port());
}

/* True when the client offered the "mqtt" subprotocol (a comma-separated list). */
bool offers_mqtt(beast::string_view offered)
{
    std::string list(offered);
    std::stringstream items(list);
    std::string item;
    while (std::getline(items, item, ',')) {
        const size_t a = item.find_first_not_of(' ');
        const size_t b = item.find_last_not_of(' ');
        if (a != std::string::npos && item.substr(a, b - a + 1) == "mqtt") {
            return true;
        }
    }
    return false;
}

/*
 * One browser's MQTT connection: WebSocket frames <-> raw TCP bytes to the
 * broker. Each direction is a loop of one read then one write, so at most one
 * write per stream is outstanding and no queue is needed; whichever side ends
 * first closes both.
 */
class Relay : public std::enable_shared_from_this<Relay> {
public:
    Relay(std::shared_ptr<Shared> shared, beast::tcp_stream stream)
        : shared_(std::move(shared)), peer_(peer_of(stream)), ws_(std::move(stream)), broker_(ws_.get_executor())
    {
        ++shared_->relays;
    }
    ~Relay() { --shared_->relays; }

    void start(http::request<http::string_body> request)
    {
        ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        ws_.set_option(websocket::stream_base::decorator([](websocket::response_type &res) {
            res.set(http::field::sec_websocket_protocol, "mqtt");
        }));
        ws_.read_message_max(shared_->settings.max_frame);
        ws_.binary(true);
        ws_.async_accept(request, [self = shared_from_this()](beast::error_code ec) {
            if (!ec) {
                self->connect_broker();
            }
        });
    }

private:
    void connect_broker()
    {
        beast::error_code ec;
        const auto address = asio::ip::make_address(shared_->settings.broker_host, ec);
        if (ec) {
            resolver_ = std::make_unique<tcp::resolver>(ws_.get_executor());
            resolver_->async_resolve(shared_->settings.broker_host, std::to_string(shared_->settings.broker_port),
                                     [self = shared_from_this()](beast::error_code e, tcp::resolver::results_type r) {
                                         if (e) {
                                             self->close("cannot resolve the broker: " + e.message());
                                             return;
                                         }
                                         asio::async_connect(self->broker_, r,
                                                             [self](beast::error_code e2, const tcp::endpoint &) {
                                                                 self->on_broker(e2);
                                                             });
                                     });
            return;
        }
        broker_.async_connect(tcp::endpoint(address, static_cast<unsigned short>(shared_->settings.broker_port)),
                              [self = shared_from_this()](beast::error_code e) { self->on_broker(e); });
    }

    void on_broker(beast::error_code ec)
    {
        if (closed_) {
            return;
        }
        if (ec) {
            /* the page sees its WebSocket close and retries, as against an absent broker */
            close("cannot reach the broker at " + shared_->settings.broker_host + ":" +
                  std::to_string(shared_->settings.broker_port) + ": " + ec.message());
            return;
        }
        broker_.set_option(tcp::no_delay(true));
        read_browser();
        read_broker();
    }

    void read_browser()
    {
        ws_.async_read(from_browser_, [self = shared_from_this()](beast::error_code ec, std::size_t) {
            if (ec) {
                if (ec == websocket::error::message_too_big) {
                    self->close("closing the WebSocket client " + self->peer_ + ": a frame of more than " +
                                std::to_string(self->shared_->settings.max_frame) + " bytes (--max-frame)");
                } else {
                    self->close("");
                }
                return;
            }
            asio::async_write(self->broker_, self->from_browser_.data(),
                              [self](beast::error_code e, std::size_t) {
                                  if (e) {
                                      self->close("");
                                      return;
                                  }
                                  self->from_browser_.consume(self->from_browser_.size());
                                  self->read_browser();
                              });
        });
    }

    void read_broker()
    {
        broker_.async_read_some(asio::buffer(from_broker_), [self = shared_from_this()](beast::error_code ec,
                                                                                       std::size_t n) {
            if (ec) {
                self->close("");
                return;
            }
            self->ws_.async_write(asio::buffer(self->from_broker_.data(), n),
                                  [self](beast::error_code e, std::size_t) {
                                      if (e) {
                                          self->close("");
                                          return;
                                      }
                                      self->read_broker();
                                  });
        });
    }

    /* Idempotent: both loops end here; the last handler holding the session frees it. */
    void close(const std::string &why)
    {
        if (closed_) {
            return;
        }
        closed_ = true;
        if (!why.empty()) {
            log_line(why);
        }
        beast::error_code ignored;
        broker_.shutdown(tcp::socket::shutdown_both, ignored);
        broker_.close(ignored);
        if (ws_.is_open()) {
            ws_.async_close(websocket::close_code::going_away, [self = shared_from_this()](beast::error_code) {});
        } else {
            beast::get_lowest_layer(ws_).close();
        }
    }

    std::shared_ptr<Shared> shared_;
    std::string peer_;
    websocket::stream<beast::tcp_stream> ws_;
    tcp::socket broker_;
    std::unique_ptr<tcp::resolver> resolver_;
    beast::flat_buffer from_browser_;
    std::array<char, BROKER_CHUNK> from_broker_{};
    bool closed_ = false;
};

/* One HTTP connection: GETs of files and the description, or the upgrade to the relay. */
class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(std::shared_ptr<Shared> shared, tcp::socket socket)
        : shared_(std::move(shared)), stream_(std::move(socket))
    {
    }

    void read()
    {
        parser_.emplace();
        parser_->body_limit(REQUEST_LIMIT);
        parser_->header_limit(REQUEST_LIMIT);
        stream_.expires_after(HTTP_IDLE);
        http::async_read(stream_, buffer_, *parser_, [self = shared_from_this()](beast::error_code ec, std::size_t) {
            if (ec) {
                beast::error_code ignored;
                self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
                return; /* a closed, idle or malformed connection: nothing to answer */
            }
            self->handle(self->parser_->release());
        });
    }

private:
    void handle(http::request<http::string_body> req)
    {
        if (websocket::is_upgrade(req)) {
            upgrade(std::move(req));
            return;
        }
        if (req.method() != http::verb::get && req.method() != http::verb::head) {
            answer(req, http::status::method_not_allowed, "text/plain", "only GET and HEAD\n");
            return;
        }
        const std::string target(req.target());
        if (target == "/description.json" || target.rfind("/description.json?", 0) == 0) {
            if (shared_->settings.description_json.empty()) {
                answer(req, http::status::not_found, "text/plain", "no gateway description\n");
            } else {
                answer(req, http::status::ok, "application/json", shared_->settings.description_json);
            }
            return;
        }
        std::string path;
        std::ifstream file;
        std::error_code fs_error;
        /* a folder opens as a stream on Linux too: only regular files are answered */
        if (web_file_path(shared_->settings.web_root, target, &path) &&
            std::filesystem::is_regular_file(path, fs_error)) {
            file.open(path, std::ios::binary);
        }
        if (!file.is_open()) {
            answer(req, http::status::not_found, "text/plain", "not found\n");
            return;
        }
        std::ostringstream body;
        body << file.rdbuf();
        answer(req, http::status::ok, media_type_of(path), body.str());
    }

    void upgrade(http::request<http::string_body> req)
    {
        const std::string target(req.target());
        if (target != "/mqtt" && target.rfind("/mqtt?", 0) != 0) {
            answer(req, http::status::not_found, "text/plain", "WebSocket only at /mqtt\n");
            return;
        }
        if (!offers_mqtt(req[http::field::sec_websocket_protocol])) {
            answer(req, http::status::bad_request, "text/plain", "the WebSocket subprotocol must be mqtt\n");
            return;
        }
        if (shared_->relays >= shared_->settings.max_clients) {
            log_line("refused the WebSocket client " + peer_of(stream_) + ": " +
                     std::to_string(shared_->settings.max_clients) + " clients already (--max-clients)");
            req.keep_alive(false);
            answer(req, http::status::service_unavailable, "text/plain", "too many clients\n");
            return;
        }
        stream_.expires_never();
        std::make_shared<Relay>(shared_, std::move(stream_))->start(std::move(req));
    }

    void answer(const http::request<http::string_body> &req, http::status status, const char *type,
                std::string body)
    {
        auto res = std::make_shared<http::response<http::string_body>>(status, req.version());
        res->set(http::field::server, "sfcloud");
        res->set(http::field::content_type, type);
        res->set(http::field::cache_control, "no-cache");
        res->set("X-Content-Type-Options", "nosniff");
        res->keep_alive(req.keep_alive());
        const bool head = req.method() == http::verb::head;
        res->body() = std::move(body);
        res->prepare_payload();
        if (head) {
            res->body().clear(); /* Content-Length stays that of the GET */
        }
        http::async_write(stream_, *res, [self = shared_from_this(), res](beast::error_code ec, std::size_t) {
            if (ec || !res->keep_alive()) {
                beast::error_code ignored;
                self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
                return;
            }
            self->read();
        });
    }

    std::shared_ptr<Shared> shared_;
    beast::tcp_stream stream_;
    beast::flat_buffer buffer_;
    boost::optional<http::request_parser<http::string_body>> parser_;
};

void accept(std::shared_ptr<Shared> shared, tcp::acceptor &acceptor)
{
    acceptor.async_accept([shared, &acceptor](beast::error_code ec, tcp::socket socket) {
        if (!ec) {
            std::make_shared<HttpSession>(shared, std::move(socket))->read();
        } else if (ec == asio::error::operation_aborted) {
            return;
        }
        accept(shared, acceptor); /* a failed accept (out of descriptors) must not stop the server */
    });
}

} // namespace

int serve(const ServeSettings &settings, std::string *detail)
{
    asio::io_context ioc(1);
    auto shared = std::make_shared<Shared>();
    shared->settings = settings;
    tcp::acceptor acceptor(ioc);
    beast::error_code ec;
    const auto address = asio::ip::make_address(settings.http_host, ec);
    if (!ec) {
        const tcp::endpoint ep(address, static_cast<unsigned short>(settings.http_port));
        acceptor.open(ep.protocol(), ec);
        if (!ec) {
            acceptor.set_option(asio::socket_base::reuse_address(true), ec);
        }
        if (!ec) {
            acceptor.bind(ep, ec);
        }
        if (!ec) {
            acceptor.listen(asio::socket_base::max_listen_connections, ec);
        }
    }
    if (ec) {
        *detail = "cannot listen on " + settings.http_host + ":" + std::to_string(settings.http_port) + ": " +
                  ec.message();
        return EXIT_NO_ANSWER;
    }
    const unsigned short port = acceptor.local_endpoint().port();
    std::printf("web console on http://%s:%u/ (MQTT relay at /mqtt to %s:%d)\n", settings.http_host.c_str(), port,
                settings.broker_host.c_str(), settings.broker_port);
    std::fflush(stdout);
    accept(shared, acceptor);
    asio::signal_set signals(ioc, SIGINT, SIGTERM);
    signals.async_wait([&ioc](beast::error_code, int) { ioc.stop(); });
    ioc.run();
    *detail = "stopped";
    return EXIT_OK;
}

} // namespace sfcloud
